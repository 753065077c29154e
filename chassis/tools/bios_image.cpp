// bios_image: makes the images that the daemon programs and installs, from any firmware file.
//
//   bios_image build     a BIOS image with header and version
//   bios_image manifest  a manifest in a BIOS image, which says what the image is for
//   bios_image keygen    a pair of keys; sign and verify use them
//   bios_image loader    a boot-loader file with its version
//   bios_image system    a system image that carries BIOS images and a boot loader
//   bios_image tree      the image tree of a running system
//   bios_image show      version, size and manifest of a BIOS image or of a boot-loader file
//
// Exit status: 0 done, 1 failed, 64 wrong usage.
#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bios_builder.h"
#include "command_line_run.h"
#include "image_error.h"
#include "image_sealing.h"
#include "loader_file.h"
#include "manifest_commands.h"
#include "standard_output.h"
#include "system_image.h"

namespace
{

struct build_options {
    std::string output;
    std::string size = "8";
    std::string version;
    std::string date;
    std::string payload;
    std::optional<std::string> payload_version; // the text in the payload that becomes the image's version
    std::optional<std::string> family;          // without it no manifest
    std::uint32_t security_version = 0;
};

struct loader_options {
    std::string output;
    std::string size;
    std::string version;
    std::string payload;
};

struct ship_options {
    std::string destination;
    std::vector<std::string> images;
    std::string loader;
};

std::vector<shipped_bios> parse_images(const std::vector<std::string> &texts)
{
    std::vector<shipped_bios> images;
    images.reserve(texts.size());
    for (const std::string &text : texts)
        images.push_back(parse_shipped_bios(text));
    return images;
}

std::string payload_of(const std::string &path)
{
    return path.empty() ? std::string() : read_whole_file(path);
}

void build(const build_options &options)
{
    const bios_header header = parse_bios_header(options.version, options.date);
    std::string payload = payload_of(options.payload);
    if (options.payload_version)
        payload = payload_with_version(std::move(payload), *options.payload_version, header);
    std::string image = build_bios_image(header, parse_image_size(options.size), payload);
    if (options.family)
        put_manifest(image, make_manifest(image, *options.family, options.security_version, {}));
    replace_file(options.output, image);
}

void build_loader(const loader_options &options)
{
    const std::size_t size_bytes = options.size.empty() ? 0 : parse_image_size(options.size);
    replace_file(options.output, build_loader_file(options.version, size_bytes, payload_of(options.payload)));
}

// Version as it is shown; throws image_error when there is none.
std::string version_text(const std::string &image, const image_reading &reading, const std::string &path)
{
    bios_header header{};
    if (image.size() >= BIOS_HEADER_BYTES && bios_header_read(image.data(), header))
        return bios_header_text(header);
    const std::string_view loader = loader_version_in(image);
    if (!loader.empty())
        return "  " + std::string(loader) + " (boot loader)";
    if (reading.state == image_manifest_state::intact)
        return "  " + reading.manifest.version;
    throw image_error(path + ": has neither a BIOS header nor the version of a boot loader");
}

void show(const std::string &path)
{
    const std::string image = read_whole_file(path);
    image_reader reader;
    reader.add(image.data(), image.size());
    const image_reading reading = reader.finish();
    print_output("version" + version_text(image, reading, path) + "\nsize     " + std::to_string(image.size()) +
                 " bytes\n" + manifest_text(reading, path));
}

void add_build(CLI::App &app, build_options &options)
{
    CLI::App *command = app.add_subcommand("build", "Make a BIOS image");
    command->add_option("--output", options.output, "The image to write")->required();
    command->add_option("--size", options.size, "Size in MiB, or in KiB with a K behind it")->capture_default_str();
    command->add_option("--version", options.version, "Version, MAJOR.MINOR")->required();
    command->add_option("--date", options.date, "Date of the build, MM/DD/YY")->required();
    CLI::Option *payload =
        command->add_option("--payload", options.payload, "Firmware that is placed at the image's end");
    command
        ->add_option("--payload-version", options.payload_version,
                     "Version text in the firmware, to be replaced by the image's version and blanks")
        ->needs(payload);
    command->add_option("--family", options.family, "Family of the cards that it is for, for a manifest");
    CLI::Option *security_version = command->add_option("--security-version", options.security_version,
                                                        "Security version of the manifest (default 0)");
    command->callback([&options, security_version] {
        if (!options.family && security_version->count() > 0)
            throw CLI::RequiredError("--family");
        build(options);
    });
}

void add_loader(CLI::App &app, loader_options &options)
{
    CLI::App *command = app.add_subcommand("loader", "Make a boot-loader file");
    command->add_option("--output", options.output, "The file to write")->required();
    command->add_option("--version", options.version, "Version, any text of 255 characters at most")->required();
    command->add_option("--size", options.size,
                        "Size in MiB, or in KiB with a K behind it; without it, what the payload needs");
    command->add_option("--payload", options.payload, "The loader itself");
    command->callback([&options] { build_loader(options); });
}

void add_shipping(CLI::App &app, ship_options &system, ship_options &tree)
{
    CLI::App *command =
        app.add_subcommand("system", "Make a system image that carries BIOS images and a boot loader");
    command->add_option("--output", system.destination, "The system image to write")->required();
    command->add_option("--bios", system.images, "NAME.gz=FILE, once for each BIOS image");
    command->add_option("--loader", system.loader, "Boot-loader file");
    command->callback(
        [&system] { build_system_image(system.destination, parse_images(system.images), system.loader); });

    command = app.add_subcommand("tree", "Put BIOS images into an image tree");
    command->add_option("--root", tree.destination, "Folder that has or gets vesk/bin")->required();
    command->add_option("--bios", tree.images, "NAME.gz=FILE, once for each BIOS image")->required();
    command->callback([&tree] { build_image_tree(tree.destination, parse_images(tree.images)); });
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Makes BIOS images and boot loaders, and the system images and image trees that carry them.",
                 "bios_image");
    app.require_subcommand(1);
    build_options build_line;
    loader_options loader_line;
    ship_options system_line;
    ship_options tree_line;
    manifest_command_line manifest_line;
    std::string shown;
    add_build(app, build_line);
    add_manifest_commands(app, manifest_line);
    add_loader(app, loader_line);
    add_shipping(app, system_line, tree_line);
    CLI::App *command =
        app.add_subcommand("show", "Show version, size and manifest of a BIOS image or boot-loader file");
    command->add_option("FILE", shown, "BIOS image or boot-loader file")->required();
    command->callback([&shown] { show(shown); });

    return run_command_line(app, argc, argv);
}
