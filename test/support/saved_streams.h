// The standard streams of the test, which come back at the end of its life whatever happened to them meanwhile.
#pragma once

#include <cstdio>
#include <unistd.h>

class saved_streams
{
public:
    saved_streams()
    {
        (void)std::fflush(stdout);
        for (int stream = 0; stream < COUNT; ++stream)
            saved_[stream] = ::dup(stream);
    }
    saved_streams(const saved_streams &) = delete;
    saved_streams &operator=(const saved_streams &) = delete;
    ~saved_streams()
    {
        (void)std::fflush(stdout);
        for (int stream = 0; stream < COUNT; ++stream) {
            (void)::dup2(saved_[stream], stream);
            (void)::close(saved_[stream]);
        }
    }

    // Descriptor of the stream as it was.
    int operator[](int stream) const { return saved_[stream]; }

private:
    static constexpr int COUNT = 3;
    int saved_[COUNT];
};
