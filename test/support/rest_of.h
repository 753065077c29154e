// The whole of a file in one piece. Byte by byte, as an iterator takes it, a flash of some mebibytes takes seconds
// in a test that is compiled without optimisation.
#pragma once

#include <istream>
#include <string>

// All bytes from where the stream stands to its end; none of a stream that could not be opened, whose state stays.
template<class bytes = std::string>
bytes rest_of(std::istream &stream)
{
    bytes rest;
    if (!stream)
        return rest;
    char piece[64 * 1024];
    do {
        stream.read(piece, sizeof piece);
        rest.insert(rest.end(), piece, piece + stream.gcount());
    } while (stream);
    if (!stream.bad())
        stream.clear(std::ios::eofbit);
    return rest;
}
