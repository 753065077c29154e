// Small owners of libarchive's objects, and the one way in which its failures are told.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <memory>
#include <string>

#include "image_error.h"

struct free_archive_reader {
    void operator()(archive *reader) const { (void)archive_read_free(reader); }
};
struct free_archive_writer {
    void operator()(archive *writer) const { (void)archive_write_free(writer); }
};
struct free_archive_entry {
    void operator()(archive_entry *entry) const { archive_entry_free(entry); }
};

using archive_reader = std::unique_ptr<archive, free_archive_reader>;
using archive_writer = std::unique_ptr<archive, free_archive_writer>;
using archive_entry_owner = std::unique_ptr<archive_entry, free_archive_entry>;

// Throws image_error with the library's text for what failed last on an archive; not every failure has one.
[[noreturn]] void fail_for(const std::string &path, archive *which);

// Opens a tar archive, compressed with gzip, bzip2, xz or zstd or not at all. Throws image_error.
archive_reader open_image(const std::string &path);

// Opens an archive for writing: a gzip-compressed tar, or one file's contents compressed with gzip. Equal input
// gives equal bytes. Throws image_error.
archive_writer create_gzip_tar(const std::string &path);
archive_writer create_gzip_file(const std::string &path);

// Writes one regular file as the next member. Throws image_error.
void write_member(archive *writer, const std::string &name, const std::string &contents);

// Ends an archive that was written; until then it is not complete. Throws image_error.
void finish_archive(archive_writer writer, const std::string &path);
