// SPDX-License-Identifier: MIT OR GPL-2.0
/*
 * A chip with errors at chosen places: an MTD of another name over the MTD of a chip that works. All goes through
 *to the chip, and what the chip cannot fail at fails here, so that programs meet the kernel's own errors.
 *
 *	modprobe faulty_chip chip=alternate name=faulty
 *	cd /sys/module/faulty_chip/parameters
 *	echo 0x7000 >erase_fails_at	an erasure of the sector with this byte ends with EIO
 *	echo 0x7123 >write_fails_at	so does a write of this byte
 *	echo 0x7123 >read_fails_at	and a read
 *	echo 0x7000 >locked_at		the sector with this byte says that it is locked, and takes neither: EROFS
 *	echo 1 >times			only the next error; -1: all
 *	echo -1 >erase_fails_at		none
 *
 * What comes before the place is done, as by a chip that has a bad place.
 */
#include <linux/err.h>
#include <linux/module.h>
#include <linux/mtd/mtd.h>

#define NOWHERE (-1LL)

static char *chip = "alternate";
module_param(chip, charp, 0444);
MODULE_PARM_DESC(chip, "Name of the MTD that is used");

static char *name = "faulty";
module_param(name, charp, 0444);
MODULE_PARM_DESC(name, "Name of the MTD with errors");

static long long erase_fails_at = NOWHERE;
static long long write_fails_at = NOWHERE;
static long long read_fails_at = NOWHERE;
static long long locked_at = NOWHERE;

static int set_place(const char *text, const struct kernel_param *parameter)
{
    return kstrtoll(text, 0, parameter->arg);
}

static int get_place(char *text, const struct kernel_param *parameter)
{
    return sysfs_emit(text, "%lld\n", *(long long *)parameter->arg);
}

static const struct kernel_param_ops place_ops = {.set = set_place, .get = get_place};

module_param_cb(erase_fails_at, &place_ops, &erase_fails_at, 0644);
module_param_cb(write_fails_at, &place_ops, &write_fails_at, 0644);
module_param_cb(read_fails_at, &place_ops, &read_fails_at, 0644);
module_param_cb(locked_at, &place_ops, &locked_at, 0644);

static int times = -1;
module_param(times, int, 0644);
MODULE_PARM_DESC(times, "How many operations still fail; -1: all");

static struct mtd_info *sound_chip;
static struct mtd_info faulty_chip;

static bool contains(long long from, size_t length, long long place)
{
    return place >= from && place - from < length;
}

static bool fails(long long from, size_t length, long long place)
{
    if (times == 0 || !contains(from, length, place))
        return false;
    if (times > 0)
        times--;
    return true;
}

static long long sector_of(long long place)
{
    return place < 0 ? place : place & ~(long long)(faulty_chip.erasesize - 1);
}

static int touches_locked(long long from, size_t length)
{
    return locked_at >= 0 && from < sector_of(locked_at) + faulty_chip.erasesize &&
           from + length > sector_of(locked_at);
}

static int faulty_erase(struct mtd_info *mtd, struct erase_info *range)
{
    struct erase_info sector = {.len = mtd->erasesize};
    int result;

    if (touches_locked(range->addr, range->len))
        return -EROFS;
    for (sector.addr = range->addr; sector.addr < range->addr + range->len; sector.addr += sector.len) {
        result = fails(sector.addr, sector.len, erase_fails_at) ? -EIO : mtd_erase(sound_chip, &sector);
        if (result) {
            range->fail_addr = sector.addr;
            return result;
        }
    }
    return 0;
}

static int faulty_write(struct mtd_info *mtd, loff_t to, size_t length, size_t *done, const u_char *bytes)
{
    int result = 0;

    if (touches_locked(to, length))
        return -EROFS;
    if (!fails(to, length, write_fails_at))
        return mtd_write(sound_chip, to, length, done, bytes);
    if (write_fails_at > to)
        result = mtd_write(sound_chip, to, write_fails_at - to, done, bytes);
    return result ? result : -EIO;
}

static int faulty_read(struct mtd_info *mtd, loff_t from, size_t length, size_t *done, u_char *bytes)
{
    int result = 0;

    if (!fails(from, length, read_fails_at))
        return mtd_read(sound_chip, from, length, done, bytes);
    if (read_fails_at > from)
        result = mtd_read(sound_chip, from, read_fails_at - from, done, bytes);
    return result ? result : -EIO;
}

static int faulty_is_locked(struct mtd_info *mtd, loff_t from, uint64_t length)
{
    return touches_locked(from, length);
}

static void faulty_sync(struct mtd_info *mtd)
{
    mtd_sync(sound_chip);
}

static int __init faulty_chip_init(void)
{
    int result;

    sound_chip = get_mtd_device_nm(chip);
    if (IS_ERR(sound_chip))
        return PTR_ERR(sound_chip);
    faulty_chip.name = name;
    faulty_chip.owner = THIS_MODULE;
    faulty_chip.type = sound_chip->type;
    faulty_chip.flags = sound_chip->flags;
    faulty_chip.size = sound_chip->size;
    faulty_chip.erasesize = sound_chip->erasesize;
    faulty_chip.writesize = sound_chip->writesize;
    faulty_chip.writebufsize = sound_chip->writebufsize;
    faulty_chip._erase = faulty_erase;
    faulty_chip._write = faulty_write;
    faulty_chip._read = faulty_read;
    faulty_chip._is_locked = faulty_is_locked;
    faulty_chip._sync = faulty_sync;
    result = mtd_device_register(&faulty_chip, NULL, 0);
    if (result)
        put_mtd_device(sound_chip);
    return result;
}

static void __exit faulty_chip_exit(void)
{
    mtd_device_unregister(&faulty_chip);
    put_mtd_device(sound_chip);
}

module_init(faulty_chip_init);
module_exit(faulty_chip_exit);
MODULE_DESCRIPTION("Chip with errors at chosen places");
MODULE_LICENSE("Dual MIT/GPL");
