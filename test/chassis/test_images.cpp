#include "test_images.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <stdexcept>

#include "rest_of.h"
#include "run_program.h"
#include "temporary_folder.h"

namespace
{

constexpr std::size_t HEADER_SPACE = 4096; // left free at the image's beginning
constexpr const char *BUILD_DATE = "05/06/24";

// A folder that goes with the test program; readable by every user, as cards may be run by another one.
class image_folder : public temporary_folder
{
public:
    image_folder() : temporary_folder("chassis_images")
    {
        std::filesystem::permissions(path(), std::filesystem::perms(0755));
    }
};

std::string random_bytes(const std::string &seed_text, std::size_t length)
{
    std::seed_seq seed(seed_text.begin(), seed_text.end());
    std::mt19937 random(seed);
    std::string bytes(length, '\0');
    for (std::size_t place = 0; place < length; place += sizeof(std::uint32_t)) {
        const auto word = static_cast<std::uint32_t>(random());
        std::memcpy(bytes.data() + place, &word, std::min(sizeof word, length - place));
    }
    return bytes;
}

void run_bios_image(std::vector<std::string> words)
{
    words.insert(words.begin(), BIOS_IMAGE_PROGRAM);
    const finished_program finished = run_program(words);
    if (finished.exit_code != 0)
        throw std::runtime_error("bios_image " + words[1] + ": " + finished.errors);
}

test_image build_image(const std::string &folder, const std::string &version, unsigned size_kib)
{
    const std::string name = version + "-" + std::to_string(size_kib);
    const std::string payload = folder + "/" + name + ".payload";
    write_file(payload, random_bytes(name, std::size_t{size_kib} * 1024 - HEADER_SPACE));
    test_image made{folder + "/" + name + ".bin", {}, "  v" + version + ".0(" + BUILD_DATE + ")"};
    run_bios_image({"build", "--output", made.path, "--size", std::to_string(size_kib) + "K", "--version", version,
                    "--date", BUILD_DATE, "--payload", payload});
    std::filesystem::remove(payload);
    made.bytes = file_content(made.path);
    return made;
}

} // namespace

const test_image &image(const std::string &version, unsigned size_kib)
{
    static const image_folder folder;
    static std::map<std::pair<std::string, unsigned>, test_image> made;
    const auto key = std::pair(version, size_kib);
    auto found = made.find(key);
    if (found == made.end())
        found = made.emplace(key, build_image(folder.path(), version, size_kib)).first;
    return found->second;
}

const test_image &old_image()
{
    return image("1.2");
}

const test_image &new_image()
{
    return image("2.5");
}

std::string shipped_name(unsigned card_id)
{
    static const std::map<unsigned, std::string> names = {
        {90, "bios-x86n.bin.gz"},           {106, "bios-x86n-o2.bin.gz"},
        {107, "bios-x86n-o2-qel.bin.gz"},   {183, "bios-x86n-tarvik-a.bin.gz"},
        {314, "bios-x86n-tarvik-f.bin.gz"}, {316, "bios-x86n-tarvik-g.bin.gz"},
        {318, "bios-x86n-tarvik-h.bin.gz"}, {282, "bios-x86n-tarvik-a_cr.bin.gz"},
    };
    return names.at(card_id);
}

void make_image_tree(const std::string &folder, const std::vector<shipped_image> &shipped)
{
    std::filesystem::create_directories(folder);
    std::vector<std::string> words = {"tree", "--root", folder, "--bios"};
    for (const shipped_image &each : shipped)
        words.push_back(each.name + "=" + each.image->path);
    run_bios_image(words);
}

void make_image_tree(const std::string &folder, unsigned card_id, const test_image &shipped)
{
    make_image_tree(folder, {{shipped_name(card_id), &shipped}});
}

void make_system_image(const std::string &path, unsigned card_id, const test_image &shipped)
{
    run_bios_image({"system", "--output", path, "--bios", shipped_name(card_id) + "=" + shipped.path});
}

std::string file_content(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::string content = rest_of(file);
    if (!file)
        throw std::runtime_error(path + ": cannot be read");
    return content;
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file)
        throw std::runtime_error(path + ": cannot be written");
}
