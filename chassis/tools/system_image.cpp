#include "system_image.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "image_archive.h"
#include "opened_image.h"

namespace
{

constexpr const char *CORE_PLUGIN = "vesk/plugin_img/core_plugin";
constexpr const char *IMAGE_FOLDER = "vesk/bin/";
constexpr std::uintmax_t MAX_FILE_BYTES = 1u << 30;

// A name in the folder of the output that goes away unless it is renamed to the output.
class temporary_file
{
public:
    explicit temporary_file(const std::string &output)
        : output_(output),
          name_(output + ".new." + std::to_string(::getpid()))
    {
    }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;
    ~temporary_file() { (void)::unlink(name_.c_str()); }

    const std::string &name() const { return name_; }
    void commit()
    {
        if (std::rename(name_.c_str(), output_.c_str()) != 0)
            throw image_error(output_ + ": " + std::strerror(errno));
    }

private:
    std::string output_;
    std::string name_;
};

std::string compressed(const std::string &contents, const std::string &scratch)
{
    const temporary_file file(scratch);
    archive_writer writer = create_gzip_file(file.name());
    write_member(writer.get(), "data", contents);
    finish_archive(std::move(writer), file.name());
    return read_whole_file(file.name());
}

// output: what the temporary files are named after.
std::string core_plugin(const std::vector<shipped_bios> &images, const std::string &output)
{
    const temporary_file file(output + ".core_plugin");
    archive_writer plugin = create_gzip_tar(file.name());
    for (const shipped_bios &image : images)
        write_member(plugin.get(), IMAGE_FOLDER + image.name,
                     compressed(read_whole_file(image.path), output + ".gz"));
    finish_archive(std::move(plugin), output);
    return read_whole_file(file.name());
}

} // namespace

std::string read_whole_file(const std::string &path)
{
    std::error_code problem;
    const std::uintmax_t size = std::filesystem::file_size(path, problem);
    if (problem)
        throw image_error(path + ": " + problem.message());
    if (size > MAX_FILE_BYTES)
        throw image_error(path + ": is larger than 1 GiB");
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    if (size > 0 && !(contents << file.rdbuf()))
        throw image_error(path + ": could not be read");
    return std::move(contents).str();
}

void replace_file(const std::string &path, const std::string &contents)
{
    temporary_file file(path);
    {
        std::ofstream output(file.name(), std::ios::binary | std::ios::trunc);
        output.write(contents.data(), static_cast<std::streamsize>(contents.size()));
        output.close();
        if (!output)
            throw image_error(path + ": could not be written: " + std::strerror(errno));
    }
    file.commit();
}

shipped_bios parse_shipped_bios(const std::string &text)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == text.size())
        throw image_error(text + ": expected NAME=FILE");
    shipped_bios image = {text.substr(0, equals), text.substr(equals + 1)};
    if (image.name.find('/') != std::string::npos || image.name == "." || image.name == "..")
        throw image_error(image.name + ": is a name inside /vesk/bin, without a folder");
    return image;
}

void build_system_image(const std::string &output, const std::vector<shipped_bios> &images,
                        const std::string &loader)
{
    if (images.empty() && loader.empty())
        throw image_error(output + ": would be empty; give it BIOS images or a boot loader");
    temporary_file system_file(output);
    archive_writer system = create_gzip_tar(system_file.name());
    if (!images.empty())
        write_member(system.get(), CORE_PLUGIN, core_plugin(images, output));
    if (!loader.empty())
        write_member(system.get(), LOADER_MEMBER, read_whole_file(loader));
    finish_archive(std::move(system), output);
    system_file.commit();
}

void build_image_tree(const std::string &root, const std::vector<shipped_bios> &images)
{
    const std::string folder = root + "/" + IMAGE_FOLDER;
    std::error_code problem;
    std::filesystem::create_directories(folder, problem);
    if (problem)
        throw image_error(folder + ": " + problem.message());
    for (const shipped_bios &image : images)
        replace_file(folder + image.name, compressed(read_whole_file(image.path), folder + image.name + ".gz"));
}
