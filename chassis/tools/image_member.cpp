#include "image_member.h"

#include "member_file.h"

namespace
{

constexpr std::size_t COPY_BYTES = std::size_t{64} * 1024;
constexpr unsigned OWNER_READS_AND_WRITES = 0600;

bool has_name(archive_entry *entry, const std::vector<std::string> &wanted)
{
    const char *name = archive_entry_pathname(entry);
    if (name == nullptr)
        return false;
    try {
        return member_components(name) == wanted;
    } catch (const image_error &) {
        return false; // a name that leads out of the archive is nobody's
    }
}

} // namespace

image_member::image_member(const std::string &image, const std::string &name)
    : image_(image),
      name_(name),
      components_(member_components(name)),
      reader_(open_image(image))
{
    archive_entry *entry = nullptr;
    do {
        const int result = archive_read_next_header(reader_.get(), &entry);
        if (result == ARCHIVE_EOF)
            throw image_error(image_ + ": has no member " + name_);
        if (result < ARCHIVE_WARN)
            fail_for(image_, reader_.get());
    } while (!has_name(entry, components_));

    const bool is_link = archive_entry_hardlink(entry) != nullptr || archive_entry_symlink(entry) != nullptr;
    if (is_link)
        throw image_error(image_ + ": member " + name_ + " is a link, which is not taken out");
    if (archive_entry_filetype(entry) != AE_IFREG)
        throw image_error(image_ + ": member " + name_ + " is not a regular file");
    mode_ = (archive_entry_perm(entry) & MEMBER_MODE_BITS) | OWNER_READS_AND_WRITES;
}

void image_member::copy(std::uint64_t limit_mib, const std::function<void(const void *, std::size_t)> &take)
{
    std::vector<char> piece(COPY_BYTES);
    std::uint64_t total_bytes = 0;
    for (;;) {
        const la_ssize_t got = archive_read_data(reader_.get(), piece.data(), piece.size());
        if (got == 0)
            return;
        if (got < 0)
            fail_for(image_, reader_.get());
        total_bytes += static_cast<std::uint64_t>(got);
        if (total_bytes > limit_mib << 20)
            throw image_error(image_ + ": member " + name_ + " is larger than " + std::to_string(limit_mib) +
                              " MiB");
        take(piece.data(), static_cast<std::size_t>(got));
    }
}
