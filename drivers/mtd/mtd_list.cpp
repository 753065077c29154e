#include "mtd_list.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "regular_file.h"

namespace
{

constexpr std::string_view PREFIX = "mtd";
constexpr std::size_t ATTRIBUTE_BYTES_MAX = 256;

struct close_directory {
    void operator()(DIR *directory) const { (void)::closedir(directory); }
};

// "mtd7". Beside each there is the same for reading only, "mtd7ro".
bool is_mtd(std::string_view name)
{
    const bool has_prefix = name.size() > PREFIX.size() && name.starts_with(PREFIX);
    return has_prefix && std::all_of(name.begin() + PREFIX.size(), name.end(),
                                     [](char digit) { return digit >= '0' && digit <= '9'; });
}

// All MTDs. Nothing with errno when they cannot be listed; a kernel without MTDs has an empty list.
std::optional<std::vector<std::string>> all_mtds(const mtd_calls &calls)
{
    const std::unique_ptr<DIR, close_directory> folder(::opendir(calls.sysfs));
    if (!folder)
        return errno == ENOENT ? std::make_optional<std::vector<std::string>>() : std::nullopt;
    std::vector<std::string> found;
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(folder.get());
        if (entry == nullptr)
            break;
        if (is_mtd(entry->d_name))
            found.emplace_back(entry->d_name);
    }
    if (errno != 0)
        return std::nullopt;
    return found;
}

std::string quoted(const std::string &name)
{
    return '"' + name + '"';
}

} // namespace

std::optional<std::string> mtd_named(const mtd_calls &calls, const std::string &name, std::string &problem)
{
    const auto all = all_mtds(calls);
    if (!all) {
        const int failure = errno;
        problem = std::string(calls.sysfs) + ": " + std::strerror(failure);
        errno = failure;
        return std::nullopt;
    }
    std::vector<std::string> found;
    for (const std::string &mtd : *all) {
        if (mtd_attribute(calls, mtd, "name") == name)
            found.push_back(mtd);
    }
    if (found.size() == 1)
        return found.front();
    problem = found.empty() ? "no MTD has the name " + quoted(name)
                            : "several MTDs have the name " + quoted(name) + ": " + std::min(found[0], found[1]) +
                                  " and " + std::max(found[0], found[1]);
    errno = found.empty() ? ENOENT : EINVAL;
    return std::nullopt;
}

std::optional<std::string> mtd_attribute(const mtd_calls &calls, const std::string &mtd, const char *attribute)
{
    const std::string path = std::string(calls.sysfs) + "/" + mtd + "/" + attribute;
    const unique_fd file = open_regular_file(path.c_str());
    char text[ATTRIBUTE_BYTES_MAX];
    const ssize_t got = file ? ::read(file.get(), text, sizeof text) : -1; // the kernel gives all of it at once
    if (got < 0)
        return std::nullopt;
    const std::string_view all(text, static_cast<std::size_t>(got));
    return std::string(all.substr(0, all.find('\n')));
}

std::optional<std::uint64_t> mtd_number_attribute(const mtd_calls &calls, const std::string &mtd,
                                                  const char *attribute)
{
    const auto text = mtd_attribute(calls, mtd, attribute);
    std::uint64_t number = 0;
    if (!text)
        return std::nullopt;
    const auto [end, failure] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (failure != std::errc() || end != text->data() + text->size())
        return std::nullopt;
    return number;
}
