// SPDX-License-Identifier: MIT OR GPL-2.0
/*
 * The BIOS chips of a card: tells the kernel where they are, and its own driver for parallel NOR flash does the
 *rest.
 *
 * A board shows its chips below the end of the first 4 GiB: the one that it boots from at the top, the other under
 *it. A board that starts from its alternate chip exchanges the two. So names are given in the order of the
 *addresses, from the top, and each name goes with its chip:
 *
 *	bios_chips.names=primary,alternate	started from the primary chip
 *	bios_chips.names=alternate,primary	started from the alternate chip
 *	bios_chips.names=primary		a board with one chip
 *
 * Each chip becomes an MTD of that name. The firmware reserves the range that the processor starts in. The kernel
 *gives it to the chips' driver with memmap=0x40000%0xfffc0000-2.
 */
#include <linux/err.h>
#include <linux/ioport.h>
#include <linux/module.h>
#include <linux/mtd/partitions.h>
#include <linux/mtd/physmap.h>
#include <linux/platform_device.h>

#define MAX_CHIPS 2
#define CHIP_BYTES 0x800000u
#define LAST_ADDRESS 0xffffffffu

static char *names[MAX_CHIPS];
static int chip_count;
module_param_array(names, charp, &chip_count, 0444);
MODULE_PARM_DESC(names, "Names of the chips; the first one is the chip that the card was started from");

/* The kernel names an MTD after its address. One partition that is the whole chip has a name of our own. */
static struct mtd_partition whole_chips[MAX_CHIPS];
static struct physmap_flash_data chips[MAX_CHIPS];
static struct platform_device *devices[MAX_CHIPS];

static struct platform_device *register_chip(int index)
{
    const resource_size_t last = LAST_ADDRESS - (resource_size_t)index * CHIP_BYTES;
    const struct resource place = DEFINE_RES_MEM(last - CHIP_BYTES + 1, CHIP_BYTES);

    whole_chips[index].name = names[index];
    whole_chips[index].size = MTDPART_SIZ_FULL;
    chips[index].width = 1;
    chips[index].parts = &whole_chips[index];
    chips[index].nr_parts = 1;
    return platform_device_register_resndata(NULL, "physmap-flash", index, &place, 1, &chips[index],
                                             sizeof(chips[index]));
}

static void unregister_chips(void)
{
    while (chip_count-- > 0)
        platform_device_unregister(devices[chip_count]);
}

static int __init bios_chips_init(void)
{
    int named = chip_count;

    for (chip_count = 0; chip_count < named; chip_count++) {
        devices[chip_count] = register_chip(chip_count);
        if (IS_ERR(devices[chip_count])) {
            int error = PTR_ERR(devices[chip_count]);

            unregister_chips();
            return error;
        }
    }
    return 0;
}

static void __exit bios_chips_exit(void)
{
    unregister_chips();
}

module_init(bios_chips_init);
module_exit(bios_chips_exit);
MODULE_DESCRIPTION("BIOS chips of a card");
MODULE_LICENSE("Dual MIT/GPL");
MODULE_SOFTDEP("pre: physmap");
