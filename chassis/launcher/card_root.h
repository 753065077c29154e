// The private root of a card, slots/SLOT/root: the folders that are the card's own, and the programs, libraries
// and devices of this machine that it sees.
#pragma once

#include <string>

#include "folder_tree.h"
#include "isolation.h"

class card_root
{
public:
    // Opens the root of a slot's card. Throws launcher_error.
    explicit card_root(unsigned slot);

    int fd() const { return tree_.fd(); }

    // The folders and files that a card has in every isolation. What the card changed in them stays.
    void make_folders() const;

    // Puts the image tree of a description (it has a folder vesk) into the root.
    void copy_image_tree(const std::string &image_tree) const;

    // The loader in the card's boot-loader partition, and the card's /etc/srg-ks.sro.
    void copy_boot_loader(const std::string &file) const;
    void copy_ks_image(const std::string &file) const;

    // First bytes of the loader that is installed; empty when there is none.
    std::string boot_loader_head(std::size_t bytes) const;

    // Makes this machine's programs, libraries and devices visible: by mounts, which have to go to a namespace of
    // this process's own, or by copies. bootflash_mib: size of a file system for /bootflash, 0 for none.
    void attach_machine(isolation way, unsigned bootflash_mib) const;

    // Puts a program of this machine at a place of the root, with the shared libraries that the card would not
    // see otherwise.
    void install_program(isolation way, const std::string &program, const std::string &place) const;

    // Undoes the mounts that processes of an earlier session have made and left: those themselves have ended with
    // the session, but not their traces in the root, nor what stands for a mount with isolation plain. REQUIRES
    // that no process of the card is left.
    void end_mounts() const;

    // A fresh /proc; false when it is not allowed. REQUIRES namespaces, and to be the first process in its own.
    bool mount_proc() const;

    // Removes what the card's processes left in /tmp, as a boot does.
    void empty_tmp() const;

private:
    void mount_machine() const;
    void copy_machine() const;

    folder_tree tree_;
};
