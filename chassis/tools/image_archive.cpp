#include "image_archive.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace
{

constexpr std::size_t READ_BLOCK_BYTES = std::size_t{64} * 1024;
constexpr mode_t MEMBER_MODE = 0644;

// Not all that the library has: for some it starts a program, whichever goes by that name.
int support_compressions(archive *reader)
{
    for (const auto support : {archive_read_support_filter_gzip, archive_read_support_filter_bzip2,
                               archive_read_support_filter_xz, archive_read_support_filter_zstd}) {
        if (const int result = support(reader); result != ARCHIVE_OK)
            return result;
    }
    return ARCHIVE_OK;
}

archive_writer create_gzip(const std::string &path, int (*set_format)(archive *))
{
    archive_writer writer(archive_write_new());
    if (!writer)
        throw image_error(path + ": out of memory");
    // Without the time stamp in the gzip header the same input always gives the same image.
    if (archive_write_add_filter_gzip(writer.get()) != ARCHIVE_OK ||
        archive_write_set_filter_option(writer.get(), "gzip", "timestamp", nullptr) != ARCHIVE_OK ||
        set_format(writer.get()) != ARCHIVE_OK ||
        archive_write_open_filename(writer.get(), path.c_str()) != ARCHIVE_OK)
        fail_for(path, writer.get());
    return writer;
}

} // namespace

void fail_for(const std::string &path, archive *which)
{
    const char *text = archive_error_string(which);
    const int error = archive_errno(which);
    const bool is_full = error == ENOSPC || error == EDQUOT || error == EFBIG; // the library says "Write error"
    throw image_error(path + ": " + (text != nullptr ? text : "unknown error of the archive") +
                      (is_full ? std::string(": ") + std::strerror(error) : ""));
}

archive_reader open_image(const std::string &path)
{
    // The open of a FIFO would wait for its writer, who may never come.
    std::error_code problem;
    const std::filesystem::file_status found = std::filesystem::status(path, problem);
    if (std::filesystem::exists(found) && !std::filesystem::is_regular_file(found))
        throw image_error(path + ": is not a regular file");
    archive_reader reader(archive_read_new());
    if (!reader)
        throw image_error(path + ": out of memory");
    if (support_compressions(reader.get()) != ARCHIVE_OK ||
        archive_read_support_format_tar(reader.get()) != ARCHIVE_OK)
        fail_for(path, reader.get());
    if (archive_read_open_filename(reader.get(), path.c_str(), READ_BLOCK_BYTES) != ARCHIVE_OK)
        fail_for(path, reader.get());
    return reader;
}

archive_writer create_gzip_tar(const std::string &path)
{
    return create_gzip(path, archive_write_set_format_pax_restricted);
}

archive_writer create_gzip_file(const std::string &path)
{
    return create_gzip(path, archive_write_set_format_raw);
}

void write_member(archive *writer, const std::string &name, const std::string &contents)
{
    const archive_entry_owner entry(archive_entry_new());
    if (!entry)
        throw image_error(name + ": out of memory");
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), MEMBER_MODE);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(contents.size()));
    if (archive_write_header(writer, entry.get()) != ARCHIVE_OK)
        fail_for(name, writer);
    if (archive_write_data(writer, contents.data(), contents.size()) != static_cast<la_ssize_t>(contents.size()))
        fail_for(name, writer);
}

void finish_archive(archive_writer writer, const std::string &path)
{
    if (archive_write_close(writer.get()) != ARCHIVE_OK)
        fail_for(path, writer.get());
}
