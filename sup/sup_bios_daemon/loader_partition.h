// The boot-loader partition, which is mounted only while it is looked at.
#pragma once

// The installed boot loader, while the partition is mounted.
constexpr const char *INSTALLED_LOADER_FILE = "/mnt/bootloader/srg-sloader.sro";

// Mounts the partition read-only; tells whether that worked.
[[nodiscard]] bool mount_loader_partition();

// Whether the unmounting worked is of no consequence: the next mount tells.
void unmount_loader_partition();
