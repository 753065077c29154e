// The flash service: versions, programming, erasing, progress messages. The transport is played by mts_send below.
#include "flash_fixture.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <sys/stat.h>

#include "bios_flash.h"
#include "bios_header.h"
#include "bios_refusals.h"
#include "bios_results.h"
#include "flash_progress_file.h"
#include "image_verification.h"
#include "mts.h"

namespace
{

constexpr std::int32_t HANDLE = 7;
constexpr std::uint32_t NODE = 0x501;
constexpr std::uint32_t SAP = 0x10003;
constexpr std::uint32_t MODULE = 3;
constexpr std::uint32_t SECTOR = SMALL_FLASH.sector_bytes;
constexpr std::uint32_t PAGE = SMALL_FLASH.page_bytes;
constexpr std::uint32_t SECTORS = SMALL_FLASH.size_bytes / SECTOR;
constexpr std::uint32_t SELECTOR = 0x30;

struct progress_message {
    std::uint32_t phase;
    std::uint32_t percent;
    std::uint32_t attempt;
    flash_bytes payload;
};

struct played_transport {
    std::vector<progress_message> sent;                  // also those that were refused
    std::function<int(const progress_message &)> answer; // errno of the sending, 0 for success
};
played_transport transport;

std::uint32_t word_of(const std::uint8_t *bytes)
{
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
}

class flash_service_fixture : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        transport = {};
    }

    std::int32_t program(const std::string &path, std::uint32_t attempt = 1, std::uint32_t image_type = 0)
    {
        return program_bios_flash(HANDLE, NODE, SAP, MODULE, path.c_str(), attempt, &area, image_type);
    }
    std::int32_t program_erased(const std::string &path, std::uint32_t attempt = 1)
    {
        return ibexpeak_program_bios_command_ex(path.c_str(), SELECTOR, HANDLE, NODE, SAP, MODULE, attempt, &area);
    }
    void new_request()
    {
        area = {};
        transport.sent.clear();
    }

    void write_erased() const
    {
        std::fstream data(flash_file("data"), std::ios::binary | std::ios::in | std::ios::out);
        data << std::string(SMALL_FLASH.size_bytes, '\xff');
    }

    static bool has_told_end() { return !transport.sent.empty() && transport.sent.back().percent == 100; }

    void expect_untouched(const flash_bytes &before) const
    {
        EXPECT_EQ(flash_contents(), before);
        EXPECT_FALSE(is_marked());
        EXPECT_EQ(wear().erases, 0u);
        EXPECT_EQ(wear().programs, 0u);
        EXPECT_FALSE(has_told_end());
    }
    void expect_programmed(const flash_bytes &image) const
    {
        EXPECT_EQ(flash_contents(), followed_by_erased(image, SMALL_FLASH.size_bytes));
        EXPECT_FALSE(is_marked());
        EXPECT_TRUE(has_told_end());
    }

    bios_flash_progress_area_t area = {};
};

class FlashVersion : public flash_service_fixture
{
};
class ImageVersion : public flash_service_fixture
{
};
class FlashProgramming : public flash_service_fixture
{
};
class FlashProgress : public flash_service_fixture
{
};
class ErasedFlash : public flash_service_fixture
{
};

using version_call = std::int32_t (*)(char *, std::uint32_t);
constexpr version_call VERSION_CALLS[] = {get_bios_flash_version, get_ibexpeak_bios_flash_version,
                                          get_ibexpeak_qel_bios_flash_version,
                                          get_ibexpeak_tarvik_a_bios_flash_version};
using image_version_call = std::int32_t (*)(const char *, std::uint32_t, char *);
constexpr image_version_call IMAGE_VERSION_CALLS[] = {get_bios_src_version, get_ibexpeak_bios_src_version};

// Result of a version call and its output, which must be zero to its end.
struct told_version {
    std::int32_t result;
    std::string text;
};

template<class call>
told_version version_told_by(call &&ask)
{
    char out[BIOS_VERSION_TEXT_BYTES];
    std::memset(out, '?', sizeof out);
    const std::int32_t result = ask(out);
    const std::size_t length = ::strnlen(out, sizeof out);
    EXPECT_TRUE(std::all_of(out + length, out + sizeof out, [](char byte) { return byte == '\0'; }));
    return {result, std::string(out, length)};
}

told_version flash_version(std::uint32_t flash_select = 0)
{
    return version_told_by([&](char *out) { return get_bios_flash_version(out, flash_select); });
}

told_version image_version(const std::string &path, std::uint32_t offset = 0)
{
    return version_told_by([&](char *out) { return get_bios_src_version(path.c_str(), offset, out); });
}

} // namespace

// Nobody answers.
image_verification verify_image(const std::string &)
{
    return {.status = AGENT_ERR_UNREADABLE};
}

std::int32_t mts_send(std::int32_t handle, std::uint32_t node, std::uint32_t sap, std::uint32_t opcode,
                      const void *payload, std::uint32_t length, std::uint32_t reserved_1, std::uint32_t reserved_2,
                      std::uint32_t reserved_3)
{
    EXPECT_EQ(handle, HANDLE);
    EXPECT_EQ(node, NODE);
    EXPECT_EQ(sap, SAP);
    EXPECT_EQ(opcode, 4795u);
    EXPECT_EQ(reserved_1 | reserved_2 | reserved_3, 0u);
    EXPECT_EQ(length, 12u);
    const auto *bytes = static_cast<const std::uint8_t *>(payload);
    transport.sent.push_back(
        {word_of(bytes), word_of(bytes + 4), word_of(bytes + 8), flash_bytes(bytes, bytes + length)});
    const int failure = transport.answer ? transport.answer(transport.sent.back()) : 0;
    if (failure == 0)
        return 0;
    errno = failure;
    return -1;
}

// Versions

TEST_F(FlashVersion, IsToldByAllFourCallsForEachFlash)
{
    create_flash(0, SMALL_FLASH, image_with_version(SMALL_FLASH.size_bytes, 3, 5));
    create_flash(1, SMALL_FLASH, image_with_version(SMALL_FLASH.size_bytes, 2, 10));
    for (const version_call call : VERSION_CALLS) {
        const auto primary = version_told_by([&](char *out) { return call(out, BIOS_FLASH_PRIMARY); });
        EXPECT_EQ(primary.result, 0);
        EXPECT_EQ(primary.text, "  v3.5.0(09/17/12)");
        const auto alternate = version_told_by([&](char *out) { return call(out, BIOS_FLASH_ALTERNATE); });
        EXPECT_EQ(alternate.result, 0);
        EXPECT_EQ(alternate.text, "  v2.10.0(09/17/12)");
    }
}

TEST_F(FlashVersion, IsNotFoundInAnErasedFlash)
{
    create_flash();
    EXPECT_EQ(flash_version().result, -61);
    EXPECT_EQ(flash_version().text, "");
}

TEST_F(FlashVersion, IsNotToldOfAFlashThatIsBeingProgrammed)
{
    create_flash(0, SMALL_FLASH, image_with_version(SMALL_FLASH.size_bytes, 3, 5));
    write_flash_file("programming", "");
    EXPECT_EQ(flash_version().result, -61);
    EXPECT_EQ(flash_version().text, "");
}

TEST_F(FlashVersion, HasNoAccessWithoutAFlash)
{
    EXPECT_EQ(flash_version(0).result, -22);
    create_flash();
    EXPECT_EQ(flash_version(1).result, -22);
    EXPECT_EQ(flash_version(2).result, -22);
    EXPECT_EQ(flash_version(UINT32_MAX).result, -22);
}

TEST_F(FlashVersion, HasNoAccessWhenTheFlashCannotBeRead)
{
    create_flash(0, SMALL_FLASH, image_with_version(SMALL_FLASH.size_bytes, 3, 5));
    set_fault("fail read 1");
    EXPECT_EQ(flash_version().result, -22);
    EXPECT_EQ(flash_version().result, 0);
}

TEST_F(FlashVersion, IsReadWhileTheFlashHasAWriter)
{
    create_flash(0, SMALL_FLASH, image_with_version(SMALL_FLASH.size_bytes, 3, 5));
    const auto writer = open_flash();
    EXPECT_EQ(flash_version().result, 0);
}

TEST_F(FlashVersion, TakesOneShortRead)
{
    // A flash of one header: any longer read would not fit.
    create_flash(0, {.size_bytes = 128, .sector_bytes = 128, .page_bytes = 128}, image_with_version(128, 3, 5));
    EXPECT_EQ(flash_version().result, 0);
    EXPECT_EQ(wear().reads, 1u);
}

TEST_F(ImageVersion, IsToldByBothCalls)
{
    const std::string path = file_of("image", image_with_version(4096, 3, 5));
    for (const image_version_call call : IMAGE_VERSION_CALLS) {
        const auto told = version_told_by([&](char *out) { return call(path.c_str(), 0, out); });
        EXPECT_EQ(told.result, 0);
        EXPECT_EQ(told.text, "  v3.5.0(09/17/12)");
    }
}

TEST_F(ImageVersion, IsToldOfAnImageThatIsNoLongerThanItsHeader)
{
    const flash_bytes header = image_with_version(BIOS_HEADER_BYTES, 3, 5);
    EXPECT_EQ(image_version(file_of("header", header)).result, 0);
    EXPECT_EQ(image_version(file_of("short", flash_bytes(header.begin(), header.end() - 1))).result, -61);
    EXPECT_EQ(image_version(file_of("empty", {})).result, -61);
}

TEST_F(ImageVersion, IsReadAtTheOffsetGiven)
{
    flash_bytes image = random_image(4096);
    const flash_bytes header = image_with_version(BIOS_HEADER_BYTES, 3, 5);
    image.insert(image.end(), header.begin(), header.end());
    const std::string path = file_of("image", image);
    EXPECT_EQ(image_version(path, 4096).text, "  v3.5.0(09/17/12)");
    EXPECT_EQ(image_version(path, 4097).result, -61);
    EXPECT_EQ(image_version(path, UINT32_MAX).result, -61);
}

TEST_F(ImageVersion, IsNotFoundWithoutSignature)
{
    EXPECT_EQ(image_version(file_of("image", flash_bytes(4096, 'x'))).result, -61);
}

TEST_F(ImageVersion, IsReadFromRegularFilesOnly)
{
    const std::string image = file_of("image", image_with_version(4096, 3, 5));
    const std::string pipe = dir + "/pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    std::filesystem::create_symlink(image, dir + "/link");
    for (const std::string &path : {dir + "/missing", dir, pipe, std::string("/dev/zero"), dir + "/link"})
        EXPECT_EQ(image_version(path).result, -22) << path;
}

// Programming

TEST_F(FlashProgramming, MakesTheFlashEqualToTheImageAndErasedBehindIt)
{
    const flash_bytes image = image_with_version(3 * SECTOR + 1000, 4, 1);
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    EXPECT_EQ(program(file_of("image", image)), 0);
    expect_programmed(image);
    EXPECT_EQ(flash_version().text, "  v4.1.0(09/17/12)");
}

TEST_F(FlashProgramming, FillsTheWholeFlash)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    create_flash();
    EXPECT_EQ(program(file_of("image", image)), 0);
    expect_programmed(image);
}

TEST_F(FlashProgramming, WritesTheFlashThatTheImageTypeSelects)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    create_flash(0);
    create_flash(1);
    const flash_bytes primary = flash_contents(0);
    EXPECT_EQ(program(file_of("image", image), 1, BIOS_FLASH_ALTERNATE), 0);
    EXPECT_EQ(flash_contents(0), primary);
    EXPECT_EQ(flash_contents(1), image);
    EXPECT_EQ(program(file_of("image", image), 1, 2), BIOS_FLASH_ERR_NO_FLASH);
}

TEST_F(FlashProgramming, LeavesAnEqualFlashAlone)
{
    const flash_bytes image = random_image(5 * SECTOR);
    create_flash(0, SMALL_FLASH, image);
    set_fault("stop erase 1\nstop program 1\nstop marker 1");
    EXPECT_EQ(program(file_of("image", image)), 0);
    expect_programmed(image);
    EXPECT_EQ(wear().reads, SECTORS);
}

TEST_F(FlashProgramming, ErasesAndWritesOnlySectorsThatDiffer)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    flash_bytes before = image;
    before[2 * SECTOR + 5] ^= 1;
    before[9 * SECTOR] ^= 0x80;
    create_flash(0, SMALL_FLASH, before);
    EXPECT_EQ(program(file_of("image", image)), 0);
    expect_programmed(image);
    EXPECT_EQ(wear().erases, 2u);
    EXPECT_EQ(wear().programs, 2 * SECTOR / PAGE);
}

TEST_F(FlashProgramming, WritesAnErasedSectorWithoutErasingIt)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    flash_bytes before = image;
    std::fill_n(before.begin() + 4 * SECTOR, SECTOR, 0xff);
    create_flash(0, SMALL_FLASH, before);
    EXPECT_EQ(program(file_of("image", image)), 0);
    expect_programmed(image);
    EXPECT_EQ(wear().erases, 0u);
    EXPECT_EQ(wear().programs, SECTOR / PAGE);
}

TEST_F(FlashProgramming, DoesNotProgramErasedPages)
{
    flash_bytes image = random_image(SECTOR);
    std::fill_n(image.begin() + 3 * PAGE, 5 * PAGE, 0xff);
    create_flash();
    EXPECT_EQ(program(file_of("image", image)), 0);
    expect_programmed(image);
    EXPECT_EQ(wear().programs, SECTOR / PAGE - 5);
}

TEST_F(FlashProgramming, RefusesImagesThatDoNotFitAndTouchesNothing)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    EXPECT_EQ(program(file_of("empty", {})), BIOS_FLASH_ERR_IMAGE_SIZE);
    EXPECT_EQ(program(file_of("large", random_image(SMALL_FLASH.size_bytes + 1))),
              bios_signed(BIOS_REFUSED_TOO_LARGE));
    EXPECT_EQ(program(dir), BIOS_FLASH_ERR_IMAGE_SIZE);
    EXPECT_EQ(program("/dev/zero"), BIOS_FLASH_ERR_IMAGE_SIZE);
    const std::string huge = file_of("huge", {});
    std::filesystem::resize_file(huge, std::uintmax_t{1} << 32 | 4096); // 4096 if its size were cut to 32 bits
    EXPECT_EQ(program(huge), bios_signed(BIOS_REFUSED_TOO_LARGE));
    expect_untouched(before);
}

TEST_F(FlashProgramming, RefusesImagesThatCannotBeReadAndTouchesNothing)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    EXPECT_EQ(program(dir + "/missing"), BIOS_FLASH_ERR_IMAGE_READ);
    std::filesystem::create_symlink(file_of("image", random_image(SECTOR)), dir + "/link");
    EXPECT_EQ(program(dir + "/link"), BIOS_FLASH_ERR_IMAGE_READ);
    expect_untouched(before);
}

TEST_F(FlashProgramming, IsRefusedWithoutAFlash)
{
    EXPECT_EQ(program(file_of("image", random_image(SECTOR))), BIOS_FLASH_ERR_NO_FLASH);
}

TEST_F(FlashProgramming, IsRefusedWhenTheFlashHasAnotherWriter)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    const auto writer = open_flash();
    EXPECT_EQ(program(file_of("image", random_image(SECTOR))), BIOS_FLASH_ERR_IN_USE);
    expect_untouched(before);
}

TEST_F(FlashProgramming, IsRefusedWhenTheFlashCannotBeReadAtAll)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    set_fault("fail read 3 3");
    EXPECT_EQ(program(file_of("image", random_image(SECTOR))), BIOS_FLASH_ERR_NO_FLASH);
    expect_untouched(before);
}

// Its contents may be those that an earlier attempt of the same request has left.
TEST_F(FlashProgramming, IsNotToldToBeAsBeforeWhenAMarkedFlashCannotBeRead)
{
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    const std::string image = file_of("image", random_image(SMALL_FLASH.size_bytes));
    set_fault("fail program 20");
    ASSERT_EQ(program(image), BIOS_FLASH_ERR_PROGRAM);
    set_fault("fail read 1 3");
    EXPECT_EQ(program(image, 2), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(program(image, 3), 0);
}

TEST_F(FlashProgramming, TouchesNothingWhenAProtectedSectorDiffers)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    write_flash_file("protected", "15\n");
    EXPECT_EQ(program(file_of("image", random_image(SMALL_FLASH.size_bytes))), BIOS_FLASH_ERR_PROTECTED);
    expect_untouched(before);
}

TEST_F(FlashProgramming, GoesAroundProtectedSectorsThatAreEqual)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    std::copy_n(before.begin() + 3 * SECTOR, 2 * SECTOR, image.begin() + 3 * SECTOR);
    create_flash(0, SMALL_FLASH, before);
    write_flash_file("protected", "3-4\n");
    EXPECT_EQ(program(file_of("image", image)), 0);
    expect_programmed(image);
}

TEST_F(FlashProgramming, LeavesTheFlashMarkedWhenAnEraseFails)
{
    const std::string image = file_of("image", image_with_version(SMALL_FLASH.size_bytes, 3, 5));
    create_flash(0, SMALL_FLASH, image_with_version(SMALL_FLASH.size_bytes, 3, 4));
    set_fault("fail erase 4");
    EXPECT_EQ(program(image), BIOS_FLASH_ERR_ERASE);
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(flash_version().result, -61);
    EXPECT_FALSE(has_told_end());
    EXPECT_EQ(program(image, 2), 0);
    EXPECT_EQ(flash_version().text, "  v3.5.0(09/17/12)");
}

TEST_F(FlashProgramming, LeavesTheFlashMarkedWhenAWriteFails)
{
    const flash_bytes image = image_with_version(SMALL_FLASH.size_bytes, 3, 5);
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    set_fault("fail program 20");
    EXPECT_EQ(program(file_of("image", image)), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(is_marked());
    EXPECT_FALSE(has_told_end());
    EXPECT_EQ(program(file_of("image", image), 2), 0);
    expect_programmed(image);
}

TEST_F(FlashProgramming, FindsOutThatAWriteDidNothingOrOnlyAPart)
{
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    for (const char *rule : {"lie program 5", "part program 5", "flip program 5"}) {
        SCOPED_TRACE(rule);
        const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
        new_request();
        set_fault(rule);
        EXPECT_EQ(program(file_of("image", image)), BIOS_FLASH_ERR_PROGRAM);
        EXPECT_TRUE(is_marked());
        EXPECT_FALSE(has_told_end());
        EXPECT_EQ(program(file_of("image", image), 2), 0);
        expect_programmed(image);
    }
    EXPECT_EQ(violations(), "");
}

// What is written over bits that an erase has left would be lost.
TEST_F(FlashProgramming, ErasesAgainWhatIsNotBlankAfterwards)
{
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    for (const char *rule : {"lie erase 3 2", "part erase 3 2", "flip erase 3 2"}) {
        SCOPED_TRACE(rule);
        const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
        const std::uint64_t erases_before = wear().erases;
        new_request();
        set_fault(rule);
        EXPECT_EQ(program(file_of("image", image)), 0);
        expect_programmed(image);
        EXPECT_EQ(wear().erases, erases_before + SECTORS + 2);
    }
    EXPECT_EQ(violations(), "");
}

TEST_F(FlashProgramming, FailsWhenASectorStaysNotBlankAndDoesNotWriteIt)
{
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    set_fault("flip erase 3 3");
    EXPECT_EQ(program(file_of("image", random_image(SMALL_FLASH.size_bytes))), BIOS_FLASH_ERR_ERASE);
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(wear().programs, 0u);
}

TEST_F(FlashProgramming, DoesNotEraseForAReadThatWasDisturbed)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, image);
    for (const char *rule : {"flip read 5", "part read 5", "lie read 5", "fail read 5 2"}) {
        SCOPED_TRACE(rule);
        new_request();
        set_fault(rule);
        EXPECT_EQ(program(file_of("image", image)), 0);
        expect_programmed(image);
    }
    EXPECT_EQ(wear().erases, 0u);
    EXPECT_EQ(wear().programs, 0u);
}

TEST_F(FlashProgramming, ReadsASectorAgainBeforeItCountsAsWrong)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    create_flash();
    const std::string fifth_read_back = std::to_string(2 * SECTORS + 5); // each difference is read twice
    for (const char *fault : {"fail", "lie", "part", "flip"}) {
        SCOPED_TRACE(fault);
        write_erased();
        new_request();
        set_fault(std::string(fault) + " read " + fifth_read_back);
        EXPECT_EQ(program(file_of("image", image)), 0);
        expect_programmed(image);
    }
    write_erased();
    new_request();
    set_fault("flip read " + fifth_read_back + " 2");
    EXPECT_EQ(program(file_of("image", image)), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(is_marked());
    EXPECT_FALSE(has_told_end());
}

// The sectors of this image are the same: the buffer holds the right bytes from the sector before.
TEST_F(FlashProgramming, DoesNotTakeAReadThatDeliveredNothingForTheRightBytes)
{
    const flash_bytes sector = random_image(SECTOR);
    flash_bytes image;
    while (image.size() < SMALL_FLASH.size_bytes)
        image.insert(image.end(), sector.begin(), sector.end());
    for (const char *rule : {"lie read always", "part read always"}) {
        SCOPED_TRACE(rule);
        if (!std::filesystem::exists(flash_file("data")))
            create_flash(0, SMALL_FLASH, image);
        new_request();
        set_fault(rule);
        EXPECT_EQ(program(file_of("image", image)), BIOS_FLASH_ERR_ERASE);
        EXPECT_FALSE(has_told_end());
    }
}

TEST_F(FlashProgramming, DoesNotTrustAMarkerThatIsNotThere)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    set_fault("lie marker 1");
    EXPECT_EQ(program(file_of("image", image)), BIOS_FLASH_ERR_ERASE);
    expect_untouched(before);
    set_fault("lie marker 2"); // the clearing
    EXPECT_EQ(program(file_of("image", image), 2), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(is_marked());
    EXPECT_FALSE(has_told_end());
    EXPECT_EQ(program(file_of("image", image), 3), 0);
    expect_programmed(image);
}

TEST_F(FlashProgramming, TouchesNothingWhenTheMarkerCannotBeSet)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    set_fault("fail marker 1");
    EXPECT_EQ(program(file_of("image", random_image(SMALL_FLASH.size_bytes))), BIOS_FLASH_ERR_ERASE);
    expect_untouched(before);
}

TEST_F(FlashProgramming, VerifiesAndUnmarksAFlashThatIsEqualButMarked)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    create_flash();
    set_fault("fail marker 2"); // the clearing
    EXPECT_EQ(program(file_of("image", image)), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(flash_contents(), image);
    EXPECT_FALSE(has_told_end());

    const flash_wear before = wear();
    EXPECT_EQ(program(file_of("image", image), 2), 0);
    expect_programmed(image);
    EXPECT_EQ(wear().erases, before.erases);
    EXPECT_EQ(wear().programs, before.programs);
    EXPECT_EQ(wear().reads, before.reads + 2 * SECTORS) << "found equal, then verified";
}

TEST_F(FlashProgramming, IsMarkedBeforeItsFirstChange)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    const std::string image = file_of("image", random_image(SMALL_FLASH.size_bytes));
    create_flash(0, SMALL_FLASH, before);
    set_fault("stop erase 1");
    EXPECT_TRUE(was_killed(status_of_child([&] { return program(image); })));
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(flash_contents(), before);
}

// Wherever a programming is cut off: the flash is the old one, or marked, or the new one; and the next request
// completes it.
TEST_F(FlashProgramming, IsCompletedByTheNextRequestWhereverItWasCutOff)
{
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    std::vector<std::string> rules = {"stop marker 1", "torn marker 1", "stop marker 2",  "torn marker 2",
                                      "stop erase 1",  "torn erase 16", "stop program 1", "torn program 256"};
    for (int count = 0; count < 40; ++count) {
        const bool is_erase = test_random()() % 2 == 0;
        rules.push_back((test_random()() % 2 == 0 ? "stop " : "torn ") +
                        (is_erase ? "erase " + std::to_string(1 + test_random()() % SECTORS)
                                  : "program " + std::to_string(1 + test_random()() % 200)));
    }
    for (const std::string &rule : rules) {
        SCOPED_TRACE(rule);
        const flash_bytes before = flash_contents();
        const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
        const std::string path = file_of("image", image);
        set_fault(rule);
        ASSERT_TRUE(was_killed(status_of_child([&] { return program(path); })));
        ASSERT_TRUE(is_marked() || flash_contents() == before || flash_contents() == image);
        new_request();
        ASSERT_EQ(program(path), 0);
        expect_programmed(image);
    }
}

TEST_F(FlashProgramming, TouchesNothingWhenTheImageIsCutShortBeforehand)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    const std::string image = file_of("image", random_image(SMALL_FLASH.size_bytes));
    create_flash(0, SMALL_FLASH, before);
    transport.answer = [&](const progress_message &message) {
        if (message.percent == 0)
            std::filesystem::resize_file(image, 5 * SECTOR + 7);
        return 0;
    };
    EXPECT_EQ(program(image), BIOS_FLASH_ERR_IMAGE_READ);
    expect_untouched(before);
}

TEST_F(FlashProgramming, SurvivesAnImageThatIsCutShortOnTheWay)
{
    for (const std::uint32_t phase : {1u, 2u, 3u}) {
        SCOPED_TRACE(phase);
        if (!std::filesystem::exists(flash_file("data")))
            create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
        new_request();
        const std::string image = file_of("image", random_image(SMALL_FLASH.size_bytes));
        transport.answer = [&](const progress_message &message) {
            if (message.phase == phase && message.percent > 0)
                std::filesystem::resize_file(image, 0);
            return 0;
        };
        EXPECT_EQ(program(image), BIOS_FLASH_ERR_PROGRAM);
        EXPECT_TRUE(is_marked());
        EXPECT_FALSE(has_told_end());
    }
}

TEST_F(FlashProgramming, WritesALargeFlash)
{
    constexpr flash_geometry large = {.size_bytes = 8 << 20};
    const flash_bytes image = image_with_version(large.size_bytes - 12345, 7, 20);
    create_flash(0, large, random_image(large.size_bytes));
    EXPECT_EQ(program(file_of("image", image)), 0);
    EXPECT_EQ(flash_contents(), followed_by_erased(image, large.size_bytes));
    EXPECT_EQ(wear().erases, 128u);
    EXPECT_EQ(flash_version().text, "  v7.20.0(09/17/12)");
}

// Progress

TEST_F(FlashProgress, GrowsFromNothingToAHundredThroughThePhases)
{
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    EXPECT_EQ(program(file_of("image", random_image(SMALL_FLASH.size_bytes)), 2), 0);
    ASSERT_GT(transport.sent.size(), 3u);
    EXPECT_EQ(transport.sent.front().payload, (flash_bytes{0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 2}));
    EXPECT_EQ(transport.sent.back().payload, (flash_bytes{0, 0, 0, 3, 0, 0, 0, 100, 0, 0, 0, 2}));
    for (std::size_t index = 1; index < transport.sent.size(); ++index) {
        EXPECT_GT(transport.sent[index].percent, transport.sent[index - 1].percent);
        EXPECT_GE(transport.sent[index].phase, transport.sent[index - 1].phase);
        EXPECT_EQ(transport.sent[index].attempt, 2u);
    }
    EXPECT_TRUE(std::any_of(transport.sent.begin(), transport.sent.end(),
                            [](const progress_message &message) { return message.phase == 2; }));
}

TEST_F(FlashProgress, TellsEachPercentOfALargeFlashOnce)
{
    constexpr flash_geometry many_sectors = {.size_bytes = 1 << 20, .sector_bytes = 1 << 10, .page_bytes = 256};
    create_flash(0, many_sectors, random_image(many_sectors.size_bytes));
    EXPECT_EQ(program(file_of("image", random_image(many_sectors.size_bytes))), 0);
    ASSERT_EQ(transport.sent.size(), 101u);
    for (std::uint32_t percent = 0; percent <= 100; ++percent)
        EXPECT_EQ(transport.sent[percent].percent, percent);
}

TEST_F(FlashProgress, TellsAHundredOnlyWhenTheFlashIsWhole)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    bool whole = false;
    transport.answer = [&](const progress_message &message) {
        if (message.percent == 100)
            whole = !is_marked() && flash_contents() == image;
        return 0;
    };
    EXPECT_EQ(program(file_of("image", image)), 0);
    EXPECT_TRUE(whole);
}

TEST_F(FlashProgress, NeverGoesBackAcrossAttempts)
{
    const std::string image = file_of("image", random_image(SMALL_FLASH.size_bytes));
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    set_fault("fail program 100");
    EXPECT_EQ(program(image, 1), BIOS_FLASH_ERR_PROGRAM);
    const std::size_t first = transport.sent.size();
    EXPECT_EQ(program(image, 2), 0);
    ASSERT_GT(transport.sent.size(), first);
    for (std::size_t index = 1; index < transport.sent.size(); ++index)
        EXPECT_GT(transport.sent[index].percent, transport.sent[index - 1].percent);
    EXPECT_EQ(transport.sent[first - 1].attempt, 1u);
    EXPECT_EQ(transport.sent[first].attempt, 2u);
    EXPECT_TRUE(has_told_end());
}

TEST_F(FlashProgress, IsToldWithoutAnAreaToo)
{
    create_flash();
    const std::string image = file_of("image", random_image(SECTOR));
    EXPECT_EQ(program_bios_flash(HANDLE, NODE, SAP, MODULE, image.c_str(), 1, nullptr, 0), 0);
    EXPECT_TRUE(has_told_end());
}

TEST_F(FlashProgress, DoesNotHoldUpTheWorkWhenNobodyListens)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    create_flash();
    transport.answer = [](const progress_message &) { return ECONNREFUSED; };
    EXPECT_EQ(program(file_of("image", image)), 0);
    EXPECT_EQ(flash_contents(), image);
    EXPECT_FALSE(is_marked());
    EXPECT_EQ(std::count_if(transport.sent.begin(), transport.sent.end(),
                            [](const progress_message &message) { return message.percent == 100; }),
              1);
}

TEST_F(FlashProgress, TriesTheEndAgainWhileTheReceiverIsFull)
{
    create_flash();
    int refusals = 3;
    transport.answer = [&](const progress_message &message) {
        return message.percent == 100 && refusals-- > 0 ? MTS_ERRNO_TIMED_OUT : 0;
    };
    EXPECT_EQ(program(file_of("image", random_image(SECTOR))), 0);
    EXPECT_EQ(std::count_if(transport.sent.begin(), transport.sent.end(),
                            [](const progress_message &message) { return message.percent == 100; }),
              4);
}

TEST_F(FlashProgress, GivesUpTheEndAfterAboutFiveSeconds)
{
    create_flash();
    transport.answer = [](const progress_message &) { return MTS_ERRNO_TIMED_OUT; };
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(program(file_of("image", random_image(SECTOR))), 0);
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(taken, std::chrono::seconds(5));
    EXPECT_LT(taken, std::chrono::seconds(20));
}

// Erasing and writing in two calls

// For watchers

TEST_F(FlashProgress, IsLeftInTheFlashsFileWithEachMessage)
{
    create_flash();
    const std::string path = file_of("image", random_image(SMALL_FLASH.size_bytes));
    transport.answer = [&](const progress_message &message) {
        const auto line = flash_progress_parse(text_of_flash_file("progress"));
        EXPECT_TRUE(line && line->phase == message.phase && line->percent == message.percent &&
                    line->attempt == message.attempt)
            << text_of_flash_file("progress");
        return 0;
    };
    EXPECT_EQ(program(path, 2), 0);
    EXPECT_EQ(flash_progress_parse(text_of_flash_file("progress"))->percent, 100u);
}

TEST_F(FlashProgress, OfALaterAttemptIsLeftThoughItsMessagesAreSilent)
{
    create_flash();
    const std::string path = file_of("image", random_image(SMALL_FLASH.size_bytes));
    set_fault("fail program 200");
    EXPECT_NE(program(path, 1), 0);
    const auto first = flash_progress_parse(text_of_flash_file("progress"));
    ASSERT_TRUE(first);
    EXPECT_EQ(first->phase, BIOS_PHASE_WRITE);
    set_fault("fail erase 1");
    EXPECT_NE(program(path, 2), 0);
    const auto second = flash_progress_parse(text_of_flash_file("progress"));
    ASSERT_TRUE(second);
    EXPECT_EQ(second->attempt, 2u);
    EXPECT_EQ(second->phase, BIOS_PHASE_ERASE);
    EXPECT_LT(second->percent, first->percent);
}

TEST_F(FlashProgress, FileThatCannotBeWrittenHoldsNothingUpAndIsNoOperation)
{
    create_flash();
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    const std::string path = file_of("image", image);
    EXPECT_EQ(program(path), 0);
    const flash_wear before = wear();
    new_request();
    EXPECT_EQ(program(path), 0);
    const std::uint64_t reads_of_one = wear().reads - before.reads;

    std::filesystem::remove(flash_file("progress"));
    std::filesystem::create_directory(flash_file("progress"));
    const flash_wear with_file = wear();
    new_request();
    EXPECT_EQ(program(path), 0);
    expect_programmed(image);
    EXPECT_EQ(wear().reads - with_file.reads, reads_of_one);
    EXPECT_EQ(wear().programs, before.programs);
}

TEST_F(FlashProgress, IsNotLeftByARequestThatIsRefused)
{
    create_flash();
    const std::string path = file_of("image", random_image(SMALL_FLASH.size_bytes));
    const auto other = open_flash();
    EXPECT_EQ(program(path), BIOS_FLASH_ERR_IN_USE);
    EXPECT_FALSE(std::filesystem::exists(flash_file("progress")));
}

TEST_F(ErasedFlash, ProgressTellsOfTheErasing)
{
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), 0);
    const auto line = flash_progress_parse(text_of_flash_file("progress"));
    ASSERT_TRUE(line);
    EXPECT_EQ(line->phase, BIOS_PHASE_ERASE);
    EXPECT_EQ(line->attempt, 0u);
    EXPECT_EQ(line->percent, 100 * (SECTORS - 1) / SECTORS) << "when the last sector was begun";
}

TEST(FlashSelector, HoldsTheLayoutAndTheFlash)
{
    EXPECT_EQ(ibexpeak_bios_which_flash("pri", 3), 0x30u);
    EXPECT_EQ(ibexpeak_bios_which_flash("pri", 4), 0x40u);
    EXPECT_EQ(ibexpeak_bios_which_flash("pri", 5), 0x50u);
    EXPECT_EQ(ibexpeak_bios_which_flash("alt", 5), 0x51u);
    EXPECT_EQ(ibexpeak_bios_which_flash("other", 3), 0x3fu);
    EXPECT_EQ(ibexpeak_bios_which_flash(nullptr, 3), 0x3fu);
}

TEST_F(ErasedFlash, IsErasedWholeAndStaysMarked)
{
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), 0);
    EXPECT_EQ(flash_contents(), flash_bytes(SMALL_FLASH.size_bytes, 0xff));
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(wear().erases, SECTORS);
    EXPECT_TRUE(transport.sent.empty());
}

TEST_F(ErasedFlash, IsTheOneThatTheSelectorNames)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    create_flash(1, SMALL_FLASH, before);
    for (const std::uint32_t layout : {3u, 4u, 5u})
        EXPECT_EQ(ibexpeak_bios_flash_erase(ibexpeak_bios_which_flash("alt", layout) & 0xff), 0);
    EXPECT_EQ(flash_contents(0), before);
    EXPECT_EQ(flash_contents(1), flash_bytes(SMALL_FLASH.size_bytes, 0xff));
    for (const std::uint32_t selector : {0x20u, 0x60u, 0x00u, 0x3fu, 0x32u}) {
        EXPECT_EQ(ibexpeak_bios_flash_erase(selector), BIOS_FLASH_ERR_NO_FLASH) << selector;
        EXPECT_EQ(ibexpeak_program_bios_command_ex(file_of("image", before).c_str(), selector, HANDLE, NODE, SAP,
                                                   MODULE, 1, &area),
                  BIOS_FLASH_ERR_NO_FLASH)
            << selector;
    }
    expect_untouched(before);
}

TEST_F(ErasedFlash, IsNotErasedInPartsWhenASectorIsProtected)
{
    const flash_bytes before = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    write_flash_file("protected", "15\n");
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), BIOS_FLASH_ERR_PROTECTED);
    expect_untouched(before);
}

TEST_F(ErasedFlash, IsErasedByAnotherAttemptAfterAFailure)
{
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    set_fault("fail erase 7");
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), BIOS_FLASH_ERR_ERASE);
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), 0);
    set_fault("fail marker 1");
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), BIOS_FLASH_ERR_ERASE);
}

TEST_F(ErasedFlash, IsNotErasedWhileItHasAnotherWriter)
{
    create_flash();
    const auto writer = open_flash();
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), BIOS_FLASH_ERR_IN_USE);
}

TEST_F(ErasedFlash, IsWrittenWithoutErasingAndUnmarked)
{
    const flash_bytes image = image_with_version(SMALL_FLASH.size_bytes - 300, 3, 5);
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    ASSERT_EQ(ibexpeak_bios_flash_erase(SELECTOR), 0);
    EXPECT_EQ(program_erased(file_of("image", image), 3), 0);
    expect_programmed(image);
    EXPECT_EQ(wear().erases, SECTORS);
    EXPECT_EQ(transport.sent.front().payload, (flash_bytes{0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 3}));
    EXPECT_EQ(transport.sent.back().payload, (flash_bytes{0, 0, 0, 3, 0, 0, 0, 100, 0, 0, 0, 3}));
    EXPECT_EQ(flash_version().text, "  v3.5.0(09/17/12)");
}

TEST_F(ErasedFlash, IsMarkedBeforeItIsWritten)
{
    const std::string image = file_of("image", random_image(SMALL_FLASH.size_bytes));
    create_flash();
    set_fault("stop program 1");
    EXPECT_TRUE(was_killed(status_of_child([&] { return program_erased(image); })));
    EXPECT_TRUE(is_marked());
}

TEST_F(ErasedFlash, IsWrittenByAnotherAttemptAfterAFailure)
{
    const flash_bytes image = random_image(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, random_image(SMALL_FLASH.size_bytes));
    ASSERT_EQ(ibexpeak_bios_flash_erase(SELECTOR), 0);
    set_fault("fail program 30");
    EXPECT_EQ(program_erased(file_of("image", image), 1), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(is_marked());
    EXPECT_FALSE(has_told_end());
    EXPECT_EQ(program_erased(file_of("image", image), 2), 0);
    expect_programmed(image);
}

TEST_F(ErasedFlash, FailsEachAttemptWhenItWasNotErased)
{
    const std::string image = file_of("image", random_image(SMALL_FLASH.size_bytes));
    create_flash(0, SMALL_FLASH, flash_bytes(SECTOR, 0));
    for (const std::uint32_t attempt : {1u, 2u, 3u, 4u, 5u}) {
        EXPECT_EQ(program_erased(image, attempt), BIOS_FLASH_ERR_PROGRAM);
        EXPECT_TRUE(is_marked());
        EXPECT_FALSE(has_told_end());
    }
    EXPECT_EQ(wear().erases, 0u);
}

TEST_F(ErasedFlash, IsFoundProtectedBeforeItIsWritten)
{
    create_flash();
    write_flash_file("protected", "0\n");
    EXPECT_EQ(program_erased(file_of("image", random_image(SECTOR))), BIOS_FLASH_ERR_PROTECTED);
    expect_untouched(flash_bytes(SMALL_FLASH.size_bytes, 0xff));
}

TEST_F(ErasedFlash, RefusesImagesThatDoNotFit)
{
    create_flash();
    EXPECT_EQ(program_erased(file_of("large", random_image(SMALL_FLASH.size_bytes + 1))),
              bios_signed(BIOS_REFUSED_TOO_LARGE));
    EXPECT_EQ(program_erased(file_of("empty", {})), BIOS_FLASH_ERR_IMAGE_SIZE);
    EXPECT_EQ(program_erased(dir + "/missing"), BIOS_FLASH_ERR_IMAGE_READ);
    expect_untouched(flash_bytes(SMALL_FLASH.size_bytes, 0xff));
}
