#include "key_files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "image_error.h"
#include "image_signature.h"
#include "system_image.h"
#include "unique_fd.h"
#include "write_all.h"

namespace
{

constexpr mode_t OWNERS_ALONE = 0600;
constexpr mode_t EVERYBODYS = 0644;

void write_new_file(const std::string &path, const std::string &text, mode_t mode)
{
    const unique_fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!file)
        throw image_error(path + ": " + std::strerror(errno));
    if (write_all(file.get(), text.data(), text.size()) && ::fsync(file.get()) == 0)
        return;
    const int failure = errno;
    (void)::unlink(path.c_str());
    throw image_error(path + ": could not be written: " + std::strerror(failure));
}

signing_key read_key(const std::string &path, const char *kind)
{
    const auto key = signing_key_parse(read_whole_file(path), kind);
    if (!key)
        throw image_error(path + ": is not a key file of kind " + kind);
    return *key;
}

} // namespace

std::string make_key_files(const std::string &secret_path, const std::string &public_path)
{
    const signing_key seed = new_signing_seed();
    const signing_key public_half = public_half_of(seed);
    write_new_file(secret_path, signing_key_format(seed, SECRET_KEY_KIND), OWNERS_ALONE);
    try {
        write_new_file(public_path, signing_key_format(public_half, PUBLIC_KEY_KIND), EVERYBODYS);
    } catch (const image_error &) {
        (void)::unlink(secret_path.c_str());
        throw;
    }
    return signing_key_id_text(signing_key_id(public_half));
}

signing_key read_secret_key(const std::string &path)
{
    struct stat status {
    };
    if (::stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        throw image_error(path + ": other users may read the key; take that away with: chmod go-rwx");
    return read_key(path, SECRET_KEY_KIND);
}

signing_key read_public_key(const std::string &path)
{
    return read_key(path, PUBLIC_KEY_KIND);
}

std::vector<image_key_id> read_revoked_keys(const std::string &path)
{
    std::vector<image_key_id> revoked;
    std::string problem;
    if (!revoked_keys_parse(read_whole_file(path), revoked, problem))
        throw image_error(path + ": " + problem);
    return revoked;
}
