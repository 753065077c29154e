#include "loader_partition.h"

#include <cstdio>

#include "exec_cmd.h"

bool mount_loader_partition()
{
    return exec_cmd_with_io_print("/bin/mount -o ro /mnt/bootloader", stdin, stdout, stderr, 0) == 0;
}

void unmount_loader_partition()
{
    (void)exec_cmd_with_io_print("/bin/umount /mnt/bootloader", stdin, stdout, stderr, 0);
}
