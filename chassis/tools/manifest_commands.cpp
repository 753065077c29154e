#include "manifest_commands.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "image_error.h"
#include "image_sealing.h"
#include "image_signature.h"
#include "key_files.h"
#include "standard_output.h"
#include "system_image.h"
#include "unique_fd.h"

namespace
{

// What is done to an image, whose path stands before what is wrong with it.
template<class Change>
void change_image(const std::string &path, const std::string &output, Change change)
{
    std::string image = read_whole_file(path);
    try {
        change(image);
    } catch (const image_error &problem) {
        throw image_error(path + ": " + problem.what());
    }
    replace_file(output, image);
}

void add_manifest(const manifest_options &options)
{
    change_image(options.image, options.output, [&](std::string &image) {
        put_manifest(image, make_manifest(image, options.family, options.security_version, options.version));
    });
}

void make_keys(const key_options &options)
{
    print_output("key      " + make_key_files(options.secret, options.public_half) + "\n");
}

void sign(const sign_options &options)
{
    const signing_key seed = read_secret_key(options.key);
    change_image(options.image, options.output, [&](std::string &image) { put_signature(image, seed); });
}

std::string problem_of(image_signature_state state, const image_reading &reading)
{
    const std::string id = reading.manifest.key_id ? signing_key_id_text(*reading.manifest.key_id) : std::string();
    switch (state) {
    case image_signature_state::damaged_manifest:
        return std::string("the manifest ") + reading.problem;
    case image_signature_state::not_signed:
        return "is not signed";
    case image_signature_state::unknown_key:
        return "was signed by a key that was not given: " + id;
    case image_signature_state::revoked_key:
        return "was signed by a key that was revoked: " + id;
    case image_signature_state::bad:
        return "the signature is not that of the image";
    case image_signature_state::good:
        break;
    }
    return {};
}

void verify(const verify_options &options)
{
    trusted_keys keys;
    for (const std::string &path : options.keys)
        keys.keys.push_back(read_public_key(path));
    if (!options.revoked.empty())
        keys.revoked = read_revoked_keys(options.revoked);
    const unique_fd file(::open(options.image.c_str(), O_RDONLY | O_CLOEXEC));
    image_reading reading;
    const auto state = file ? check_image_signature(file.get(), keys, reading) : std::nullopt;
    if (!state)
        throw image_error(options.image + ": " + std::strerror(errno));
    if (*state != image_signature_state::good)
        throw image_error(options.image + ": " + problem_of(*state, reading));
    print_output("signed   by key " + signing_key_id_text(*reading.manifest.key_id) + "\n");
}

// An option whose value is the name of a file, which shells complete.
CLI::Option *add_file(CLI::App *command, const std::string &name, std::string &file, const std::string &meaning)
{
    return command->add_option(name, file, meaning)->type_name("FILE");
}

} // namespace

void add_manifest_commands(CLI::App &app, manifest_command_line &line)
{
    CLI::App *command = app.add_subcommand("manifest", "Put a manifest into a BIOS image that has none");
    add_file(command, "--output", line.manifest.output, "The image to write")->required();
    add_file(command, "--image", line.manifest.image, "The image without a manifest")->required();
    command->add_option("--family", line.manifest.family, "Family of the cards that it is for")->required();
    command->add_option("--security-version", line.manifest.security_version, "Security version (default 0)");
    command->add_option("--version", line.manifest.version,
                        "Version as it is shown; without it, that of the image's x86n header");
    command->callback([&line] { add_manifest(line.manifest); });

    command = app.add_subcommand("keygen", "Make a pair of keys to sign images with");
    add_file(command, "--secret", line.keygen.secret, "New file for the secret key, which only its owner may read")
        ->required();
    add_file(command, "--public", line.keygen.public_half, "New file for the public key, which cards get")
        ->required();
    command->callback([&line] { make_keys(line.keygen); });

    command = app.add_subcommand("sign", "Sign a BIOS image that has a manifest");
    add_file(command, "--output", line.sign.output, "The image to write")->required();
    add_file(command, "--key", line.sign.key, "The secret key")->required();
    add_file(command, "--image", line.sign.image, "The image to sign")->required();
    command->callback([&line] { sign(line.sign); });

    command = app.add_subcommand("verify", "Check the signature of a BIOS image");
    command->add_option("--key", line.verify.keys, "A public key, once for each that counts")
        ->type_name("FILE")
        ->required();
    add_file(command, "--revoked", line.verify.revoked, "Ids of keys that count no longer");
    add_file(command, "--image", line.verify.image, "The image to check")->required();
    command->callback([&line] { verify(line.verify); });
}

std::string manifest_text(const image_reading &reading, const std::string &path)
{
    if (reading.state == image_manifest_state::none)
        return {};
    if (reading.state == image_manifest_state::damaged)
        throw image_error(path + ": the manifest " + reading.problem);
    const image_manifest &manifest = reading.manifest;
    std::string cards = manifest.card_ids.empty() ? "all its cards" : "cards";
    for (const std::uint16_t id : manifest.card_ids)
        cards += " " + std::to_string(id);
    const std::string signer = manifest.key_id ? "by key " + signing_key_id_text(*manifest.key_id) : "no";
    return "family   " + manifest.family_name + " (" + std::to_string(manifest.family) + "): " + cards +
           "\nsecurity " + std::to_string(manifest.security_version) + "\nsigned   " + signer + "\n";
}
