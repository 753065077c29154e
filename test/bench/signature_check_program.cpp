// Checks a signed image, or reads it for its digest alone, in a process of its own.
//   signature_check_program check|digest IMAGE KEY
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <vector>

#include "image_signature.h"
#include "unique_fd.h"

namespace
{

constexpr std::size_t PIECE_BYTES = 64 << 10;

bool is_signed(int image, const char *key_path)
{
    std::ifstream file(key_path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const auto key = signing_key_parse(text, PUBLIC_KEY_KIND);
    image_reading reading;
    return key &&
           check_image_signature(image, {.keys = {*key}, .revoked = {}}, reading) == image_signature_state::good;
}

bool is_read(int image)
{
    std::vector<std::uint8_t> piece(PIECE_BYTES);
    sha256 sum;
    ssize_t got = 0;
    while ((got = ::read(image, piece.data(), piece.size())) > 0)
        sum.add(piece.data(), static_cast<std::size_t>(got));
    std::puts(sha256_text(sum.digest()).c_str());
    return got == 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fputs("usage: signature_check_program check|digest IMAGE KEY\n", stderr);
        return EXIT_FAILURE;
    }
    const unique_fd image(::open(argv[2], O_RDONLY | O_CLOEXEC));
    const bool is_check = std::string(argv[1]) == "check";
    return image && (is_check ? is_signed(image.get(), argv[3]) : is_read(image.get())) ? EXIT_SUCCESS
                                                                                        : EXIT_FAILURE;
}
