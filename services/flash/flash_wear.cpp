// The totals of the file `wear`.
#include "flash_wear.h"

#include <cinttypes>
#include <cstdio>
#include <string>

#include "chassis_dir.h"
#include "flash_folder.h"

flash_wear flash_wear_load(const char *folder_path)
{
    flash_wear total;
    std::string text;
    if (!chassis_read_file(std::string(folder_path) + "/" + FLASH_FILE_WEAR, text, 256))
        return {};
    if (std::sscanf(text.c_str(), "erases %" SCNu64 " programs %" SCNu64 " reads %" SCNu64, &total.erases,
                    &total.programs, &total.reads) != 3)
        return {};
    return total;
}

void flash_wear_add(const flash_folder &folder, flash_wear &done)
{
    if (done.erases == 0 && done.programs == 0 && done.reads == 0)
        return;
    const flash_folder_lock lock(folder);
    const flash_wear before = flash_wear_load(folder.path.c_str());
    (void)flash_folder_rewrite(folder, FLASH_FILE_WEAR,
                               "erases " + std::to_string(before.erases + done.erases) + "\nprograms " +
                                   std::to_string(before.programs + done.programs) + "\nreads " +
                                   std::to_string(before.reads + done.reads) + "\n");
    done = {};
}
