// "chassis init": the directory of a chassis, from its description.
#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "card_files.h"
#include "card_root.h"
#include "chassis_commands.h"
#include "chassis_dir.h"
#include "description.h"
#include "flash_folder.h"
#include "flash_geometry.h"
#include "launcher_error.h"
#include "nor_file_layout.h"

namespace
{

// Each folder is closed by itself: whoever lets others into the directory, to read the inventory for instance, has
// not let them into the rest of it.
constexpr mode_t PRIVATE_MODE = 0700;

void make_folder(const std::string &path)
{
    if (::mkdirat(chassis_dir_fd(), path.c_str(), PRIVATE_MODE) != 0)
        throw system_error_of(path);
}

// A directory that goes away again unless everything worked.
class new_directory
{
public:
    explicit new_directory(const std::string &final_path)
        : final_path_(final_path),
          path_(final_path + ".new." + std::to_string(::getpid()))
    {
        if (::mkdir(path_.c_str(), PRIVATE_MODE) != 0)
            throw system_error_of(path_);
    }
    new_directory(const new_directory &) = delete;
    new_directory &operator=(const new_directory &) = delete;
    ~new_directory()
    {
        std::error_code problem;
        if (!path_.empty())
            (void)std::filesystem::remove_all(path_, problem);
    }
    const std::string &path() const { return path_; }
    void commit()
    {
        // An empty directory may be in the place; anything else is refused by the call.
        if (::rename(path_.c_str(), final_path_.c_str()) != 0)
            throw system_error_of(final_path_);
        path_.clear();
    }

private:
    std::string final_path_;
    std::string path_;
};

// An empty directory may be there. One of another user, or one that others write to, is somebody else's place.
void require_free_place(const std::string &directory)
{
    std::error_code problem;
    if (!std::filesystem::exists(std::filesystem::symlink_status(directory, problem)))
        return;
    if (chassis_attach(directory, 0) != 0)
        throw system_error_of(directory);
    if (const std::string objection = chassis_folder_problem("."); !objection.empty())
        throw launcher_error(directory + ": " + objection);
    if (!std::filesystem::is_empty(directory, problem))
        throw launcher_error(directory + ": is there already; remove it first or choose another with --dir");
}

void write_inventory(const card_description &card)
{
    make_folder("inventory/" + std::to_string(card.slot));
    const auto write = [&](const char *name, std::uint32_t value) {
        write_line(chassis_inventory_path(card.slot, name), std::to_string(value));
    };
    write("card_id", card.card_id);
    write("kind", card.kind);
    write("sup_state", card.sup_state);
    write("hw_change_bit", card.hw_change_bit);
    write("upgrade_restart", 0);
}

void make_flash(const card_description &card, unsigned instance, const std::string &image)
{
    const flash_geometry geometry = {.size_bytes = card.flash_bytes, .sector_bytes = card.sector_bytes};
    if (nor_file_create(card.slot, instance, geometry, image) != 0)
        throw system_error_of(flash_folder_path(card.slot, instance));
}

void write_answers(const card_description &card)
{
    if (card.answers == answer_form::daemon)
        return;
    for (const named_answer_form &known : ANSWER_FORMS) {
        if (known.form == card.answers)
            write_line(chassis_slot_path(card.slot, ANSWERS_FILE), std::string(known.name));
    }
    if (card.answer_rows)
        write_line(chassis_slot_path(card.slot, ANSWER_ROWS_FILE), std::to_string(*card.answer_rows));
    if (card.answer_seed)
        write_line(chassis_slot_path(card.slot, ANSWER_SEED_FILE), std::to_string(*card.answer_seed));
}

void make_card(const card_description &card)
{
    write_inventory(card);
    make_folder("slots/" + std::to_string(card.slot));
    for (const char *name : {"root", "flash", "registers", "debug"})
        make_folder(chassis_slot_path(card.slot, name));
    write_line(chassis_slot_path(card.slot, "name"), card.name);
    write_line(chassis_slot_path(card.slot, "serves"), card.serves ? "1" : "0");
    write_answers(card);
    write_line(chassis_slot_path(card.slot, "state"), STATE_DOWN);
    if (card.bootflash_mib != 0) {
        write_line(chassis_slot_path(card.slot, "bootflash_mib"), std::to_string(card.bootflash_mib));
        write_line(chassis_slot_path(card.slot, "private_bootflash"), "1");
    }
    make_flash(card, 0, card.flash_image);
    make_flash(card, 1, card.alternate_image);

    const card_root root(card.slot);
    root.make_folders();
    if (!card.image_tree.empty())
        root.copy_image_tree(card.image_tree);
    if (!card.boot_loader.empty())
        root.copy_boot_loader(card.boot_loader);
    if (!card.ks_image.empty())
        root.copy_ks_image(card.ks_image);
}

} // namespace

void init_chassis(const std::string &directory, const std::string &description)
{
    const chassis_description chassis = load_description(description);
    require_free_place(directory);
    new_directory made(directory);
    if (chassis_attach(made.path(), 0) != 0)
        throw system_error_of(made.path());
    // In a folder where everybody may rename everything it can be another one by now.
    if (const std::string problem = chassis_folder_problem("."); !problem.empty())
        throw launcher_error(made.path() + ": " + problem);
    make_folder("inventory");
    make_folder("slots");
    make_folder("mts");
    make_folder("transport");
    write_line("name", chassis.name);
    write_line("isolation", isolation_name(chassis.way));
    if (chassis.wait_limit_s)
        write_line("transport/wait_limit_s", std::to_string(*chassis.wait_limit_s));
    for (const card_description &card : chassis.cards)
        make_card(card);
    made.commit();
}
