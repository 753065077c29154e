// platform/bios_flash.h: versions, programming and erasing. All tests that program need a flash that may be
// destroyed.
#include "bios_flash.h"
#include "bios_refusals.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <unistd.h>
#include <vector>

#include "contract_test.h"
#include "programming.h"

namespace
{

constexpr result_code ERASE_FAILED = 0x40710009;
constexpr result_code PROGRAM_FAILED = 0x4071000c;
constexpr result_code IMAGE_SIZE = 0x40710020;
constexpr result_code PROTECTED = 0x40710021;
constexpr result_code IMAGE_READ = 0x40710023;
constexpr result_code NO_FLASH = 0x40710024;
constexpr result_code IN_USE = 0x40710027;
constexpr result_code NO_ACCESS = -22;
constexpr result_code NO_VERSION = -61;
constexpr std::size_t VERSION_TEXT_CHARACTERS = BIOS_VERSION_TEXT_BYTES - 1;
constexpr char FILLER = 'F';

// Images with a long number or text somewhere in their header, or where their version text stands.
constexpr std::size_t HOSTILE_HEADER_BYTES = 1024;
constexpr std::size_t HOSTILE_STEP = 3;
constexpr std::size_t HOSTILE_TEXT_BYTES = 400;
constexpr char HOSTILE_DIGIT = '9'; // part of any version

constexpr unsigned INTERRUPTION_TRIES = 5; // a programming may have ended before it is interrupted

struct version {
    result_code result;
    std::string text;
};

// The call's result and its text, when it kept to its 128 bytes.
template<class Call>
version version_by(Call call)
{
    char text[2 * HOSTILE_TEXT_BYTES]; // so that what is written beyond the 128 bytes is found and harms nothing
    std::memset(text, FILLER, sizeof text);
    const std::int32_t result = call(text);
    const char *beyond = text + BIOS_VERSION_TEXT_BYTES;
    EXPECT_TRUE(std::all_of(beyond, std::cend(text), [](char c) { return c == FILLER; }))
        << "more than 128 bytes were written";
    if (result != 0)
        return {result, ""};
    const std::size_t length = ::strnlen(text, BIOS_VERSION_TEXT_BYTES);
    EXPECT_LE(length, VERSION_TEXT_CHARACTERS) << "not terminated";
    return {result, std::string(text, length)};
}

// Where images may be made hostile: the header's bytes, and the places where the version text stands as it is.
std::vector<std::size_t> hostile_offsets(const std::string &image, std::string version_text)
{
    std::vector<std::size_t> offsets;
    for (std::size_t offset = 0; offset < std::min(HOSTILE_HEADER_BYTES, image.size()); offset += HOSTILE_STEP)
        offsets.push_back(offset);
    version_text.erase(0, version_text.find_first_not_of(' '));
    for (std::size_t at = image.find(version_text); at != std::string::npos && !version_text.empty();
         at = image.find(version_text, at + 1))
        offsets.push_back(at + 1); // its first character may be what it is known by
    return offsets;
}

// An image file that has digits in the place of some bytes.
class hostile_image
{
public:
    explicit hostile_image(const std::string &image) : image_(image), file_("hostile", image) {}

    void place_digits(std::size_t offset)
    {
        put(offset_, image_.substr(offset_, HOSTILE_TEXT_BYTES));
        offset_ = offset;
        put(offset_, std::string(std::min(HOSTILE_TEXT_BYTES, image_.size() - offset_), HOSTILE_DIGIT));
    }
    const char *path() const { return file_.path(); }

private:
    void put(std::size_t offset, const std::string &bytes) const
    {
        std::fstream file(file_.path(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(offset));
        file << bytes;
    }

    const std::string image_;
    scratch_file file_;
    std::size_t offset_ = 0;
};

std::int32_t program(std::int32_t handle, bios_flash_progress_area_t *area, std::uint32_t instance,
                     const char *path, std::uint32_t attempt = 1)
{
    contract_card card{};
    contract_this_card(&card);
    return program_bios_flash(handle, own_node(), contract_sap(0), card.module, path, attempt, area, instance);
}

programming::work programs(std::uint32_t instance, std::string path)
{
    return [=](std::int32_t handle, bios_flash_progress_area_t *area) {
        return program(handle, area, instance, path.c_str());
    };
}

bool is_too_large(std::optional<result_code> result)
{
    return result == IMAGE_SIZE || result == static_cast<result_code>(BIOS_REFUSED_TOO_LARGE);
}

class Flash : public testing::Test
{
protected:
    std::string contents() const
    {
        std::string bytes(flash_.size_bytes, '\0');
        unread_ = contract_read_flash(flash_.instance, 0, bytes.data(), flash_.size_bytes);
        return unread_ == nullptr ? bytes : "";
    }
    // Whether the flash holds the bytes; also when there is no other way to read it.
    bool holds(const std::string &bytes) const
    {
        const std::string found = contents();
        return unread_ != nullptr || found == bytes;
    }

    contract_flash flash_ = {};
    mutable const char *unread_ = nullptr;
};

// The flash holds its first image when a test begins.
class BiosFlash : public Flash
{
protected:
    void SetUp() override
    {
        NEEDS(contract_plain_flash(&flash_));
        ASSERT_EQ(result_of(flash_.image[0]), 0);
    }

    std::optional<result_code> result_of(const char *path) const
    {
        return programming(programs(flash_.instance, path)).result();
    }
    version flash_version() const
    {
        return version_by([&](char *text) { return get_bios_flash_version(text, flash_.instance); });
    }
    // A programming of the other image that has begun to change the flash and is still at it, or null.
    std::unique_ptr<programming> begun_programming() const
    {
        for (unsigned attempt = 0; attempt < INTERRUPTION_TRIES; ++attempt) {
            auto begun = std::make_unique<programming>(programs(flash_.instance, flash_.image[1 - attempt % 2]));
            if (begun->wait_for_progress(0))
                return begun;
        }
        return nullptr;
    }
    void expect_failure_leaves_the_flash(const char *path, result_code failure) const
    {
        EXPECT_EQ(result_of(path), failure);
        expect_first_image();
    }
    void expect_first_image() const
    {
        EXPECT_TRUE(holds(content_of_file(flash_.image[0])));
        EXPECT_EQ(flash_version().text, flash_.image_version[0]);
    }
};

class ChipsetFlash : public Flash
{
protected:
    void SetUp() override
    {
        NEEDS(contract_chipset_flash(&flash_));
        selector_ = ibexpeak_bios_which_flash("pri", flash_.variant) & 0xff;
    }
    void TearDown() override
    {
        if (const char *temporary = nullptr; contract_temporary_image(&temporary) == nullptr)
            (void)::unlink(temporary);
    }

    // As before the programming of an image.
    std::optional<result_code> erase(unsigned image = 0) const
    {
        if (const char *temporary = nullptr; contract_temporary_image(&temporary) == nullptr)
            std::ofstream(temporary, std::ios::binary) << content_of_file(flash_.image[image]);
        return programming(
                   [&](std::int32_t, bios_flash_progress_area_t *) { return ibexpeak_bios_flash_erase(selector_); })
            .result();
    }
    programming::work writes(const char *path) const
    {
        return [this, path](std::int32_t handle, bios_flash_progress_area_t *area) {
            contract_card card{};
            contract_this_card(&card);
            return ibexpeak_program_bios_command_ex(path, selector_, handle, own_node(), contract_sap(0),
                                                    card.module, 1, area);
        };
    }
    version flash_version() const
    {
        return version_by([&](char *text) {
            const auto read = flash_.variant == 3   ? get_ibexpeak_bios_flash_version
                              : flash_.variant == 4 ? get_ibexpeak_qel_bios_flash_version
                                                    : get_ibexpeak_tarvik_a_bios_flash_version;
            return read(text, flash_.instance);
        });
    }

    std::uint32_t selector_ = 0;
};

using BiosImageVersion = Flash;

} // namespace

TEST_F(BiosImageVersion, IsThatOfTheImage)
{
    NEEDS(contract_plain_flash(&flash_));
    for (unsigned image = 0; image < 2; ++image) {
        const version found =
            version_by([&](char *text) { return get_bios_src_version(flash_.image[image], 0, text); });
        EXPECT_EQ(found.result, 0);
        EXPECT_EQ(found.text, flash_.image_version[image]);
    }
}

TEST_F(BiosImageVersion, IsThatOfAChipsetImage)
{
    NEEDS(contract_chipset_flash(&flash_));
    const version found =
        version_by([&](char *text) { return get_ibexpeak_bios_src_version(flash_.image[0], 0, text); });
    EXPECT_EQ(found.result, 0);
    EXPECT_EQ(found.text, flash_.image_version[0]);
}

TEST_F(BiosImageVersion, IsMinus22ForAnImageThatCannotBeOpened)
{
    const scratch_file missing("missing");
    EXPECT_EQ(version_by([&](char *text) { return get_bios_src_version(missing.path(), 0, text); }).result,
              NO_ACCESS);
    EXPECT_EQ(version_by([&](char *text) { return get_ibexpeak_bios_src_version(missing.path(), 0, text); }).result,
              NO_ACCESS);
}

TEST_F(BiosImageVersion, IsMinus61ForAFileWithoutAVersion)
{
    const scratch_file zeros("zeros", std::string(65536, '\0'));
    EXPECT_EQ(version_by([&](char *text) { return get_bios_src_version(zeros.path(), 0, text); }).result,
              NO_VERSION);
    EXPECT_EQ(version_by([&](char *text) { return get_ibexpeak_bios_src_version(zeros.path(), 0, text); }).result,
              NO_VERSION);
}

TEST_F(BiosImageVersion, HasAtMost127CharactersWhateverTheImageHolds)
{
    NEEDS(contract_plain_flash(&flash_));
    const std::string image = content_of_file(flash_.image[0]);
    hostile_image hostile(image);
    for (const std::size_t offset : hostile_offsets(image, flash_.image_version[0])) {
        hostile.place_digits(offset);
        (void)version_by([&](char *text) { return get_bios_src_version(hostile.path(), 0, text); });
        (void)version_by([&](char *text) { return get_ibexpeak_bios_src_version(hostile.path(), 0, text); });
        ASSERT_FALSE(HasFailure()) << "the digit 9 in the bytes from " << offset << " on";
    }
}

TEST_F(BiosFlash, HasAVersionOfAtMost127CharactersWhateverItHolds)
{
    const std::string image = content_of_file(flash_.image[0]);
    hostile_image hostile(image);
    std::size_t longest = 0;
    std::size_t longest_offset = 0;
    for (const std::size_t offset : hostile_offsets(image, flash_.image_version[0])) {
        hostile.place_digits(offset);
        const version found = version_by([&](char *text) { return get_bios_src_version(hostile.path(), 0, text); });
        if (found.result == 0 && found.text.size() > longest) {
            longest = found.text.size();
            longest_offset = offset;
        }
    }
    ASSERT_GT(longest, 0U) << "no image with digits somewhere has a version";
    hostile.place_digits(longest_offset);
    ASSERT_EQ(result_of(hostile.path()), 0);
    EXPECT_EQ(flash_version().result, 0);
}

TEST_F(BiosFlash, ProgrammedFlashReadsBackEqual)
{
    ASSERT_EQ(result_of(flash_.image[1]), 0);
    const std::string found = contents();
    NEEDS(unread_);
    EXPECT_TRUE(found == content_of_file(flash_.image[1]));
}

TEST_F(BiosFlash, ProgrammedFlashHasTheVersionOfTheImage)
{
    EXPECT_EQ(flash_version().text, flash_.image_version[0]);
    ASSERT_EQ(result_of(flash_.image[1]), 0);
    const version found = flash_version();
    EXPECT_EQ(found.result, 0);
    EXPECT_EQ(found.text, flash_.image_version[1]);
}

TEST_F(BiosFlash, IsProgrammedAlsoWhenItIsEqualAlready)
{
    programming again(programs(flash_.instance, flash_.image[0]));
    EXPECT_EQ(again.result(), 0);
    EXPECT_TRUE(again.told_percent(100));
    EXPECT_TRUE(holds(content_of_file(flash_.image[0])));
}

TEST_F(BiosFlash, TellsTheRequesterItsProgress)
{
    programming other(programs(flash_.instance, flash_.image[1]));
    ASSERT_EQ(other.result(), 0);
    ASSERT_GT(other.told().size(), 1U);
    EXPECT_TRUE(other.never_went_back());
    EXPECT_EQ(other.told().back().percent, 100U);
    for (const programming::progress &step : other.told())
        EXPECT_EQ(step.attempt, 1U);
}

TEST_F(BiosFlash, IsProgrammedThoughNobodyReceivesTheProgress)
{
    programming other([&](std::int32_t handle, bios_flash_progress_area_t *area) {
        contract_card card{};
        contract_this_card(&card);
        return program_bios_flash(handle, own_node(), contract_sap(3), card.module, flash_.image[1], 1, area,
                                  flash_.instance);
    });
    EXPECT_EQ(other.result(), 0);
    EXPECT_TRUE(other.told().empty());
    EXPECT_TRUE(holds(content_of_file(flash_.image[1])));
}

TEST_F(BiosFlash, HasItsVersionWhen100PercentAreReported)
{
    programming other(programs(flash_.instance, flash_.image[1]));
    ASSERT_TRUE(other.wait_for_progress(99));
    other.kill(); // whatever it still had to do is not done
    EXPECT_EQ(flash_version().text, flash_.image_version[1]);
    EXPECT_TRUE(holds(content_of_file(flash_.image[1])));
}

TEST_F(BiosFlash, IsErasedBehindASmallerImage)
{
    const std::string half = content_of_file(flash_.image[1]).substr(0, flash_.size_bytes / 2);
    const scratch_file smaller("smaller", half);
    ASSERT_EQ(result_of(smaller.path()), 0);
    const std::string found = contents();
    NEEDS(unread_);
    EXPECT_TRUE(found == half + std::string(flash_.size_bytes - half.size(), '\xff'));
}

TEST_F(BiosFlash, RefusesAnEmptyImage)
{
    const scratch_file empty("empty", "");
    expect_failure_leaves_the_flash(empty.path(), IMAGE_SIZE);
}

TEST_F(BiosFlash, RefusesAnImageLargerThanTheFlash)
{
    const scratch_file large("large", content_of_file(flash_.image[1]) + "x");
    EXPECT_TRUE(is_too_large(result_of(large.path())));
    expect_first_image();
}

TEST_F(BiosFlash, RefusesAnImageThatIsNoRegularFile)
{
    expect_failure_leaves_the_flash(contract_scratch_folder(), IMAGE_SIZE);
}

TEST_F(BiosFlash, RefusesAnImageThatCannotBeOpened)
{
    const scratch_file missing("missing");
    expect_failure_leaves_the_flash(missing.path(), IMAGE_READ);
}

TEST_F(BiosFlash, RefusesToChangeProtectedSectors)
{
    held_condition protection(CONTRACT_FLASH_IS_PROTECTED);
    NEEDS(protection.reason());
    expect_failure_leaves_the_flash(flash_.image[1], PROTECTED);
    protection.end();
    EXPECT_EQ(result_of(flash_.image[1]), 0);
}

TEST_F(BiosFlash, TellsWhenItCannotBeErasedAndCanBeProgrammedLater)
{
    held_condition fault(CONTRACT_FLASH_CANNOT_BE_ERASED);
    NEEDS(fault.reason());
    programming failed(programs(flash_.instance, flash_.image[1]));
    EXPECT_EQ(failed.result(), ERASE_FAILED);
    EXPECT_FALSE(failed.told_percent(100));
    EXPECT_EQ(flash_version().result, NO_VERSION);
    fault.end();
    EXPECT_EQ(result_of(flash_.image[1]), 0);
    EXPECT_EQ(flash_version().text, flash_.image_version[1]);
}

TEST_F(BiosFlash, TellsWhenItCannotBeWrittenAndCanBeProgrammedLater)
{
    held_condition fault(CONTRACT_FLASH_CANNOT_BE_WRITTEN);
    NEEDS(fault.reason());
    programming failed(programs(flash_.instance, flash_.image[1]));
    EXPECT_EQ(failed.result(), PROGRAM_FAILED);
    EXPECT_FALSE(failed.told_percent(100));
    EXPECT_EQ(flash_version().result, NO_VERSION);
    fault.end();
    EXPECT_EQ(result_of(flash_.image[1]), 0);
    EXPECT_EQ(flash_version().text, flash_.image_version[1]);
}

TEST_F(BiosFlash, TellsWhenItDoesNotReadBackAsTheImage)
{
    held_condition fault(CONTRACT_FLASH_KEEPS_OTHER_BYTES);
    NEEDS(fault.reason());
    programming failed(programs(flash_.instance, flash_.image[1]));
    EXPECT_EQ(failed.result(), PROGRAM_FAILED);
    EXPECT_FALSE(failed.told_percent(100)) << "100 percent were reported before the flash was read back";
    EXPECT_EQ(flash_version().result, NO_VERSION);
    fault.end();
    EXPECT_EQ(result_of(flash_.image[1]), 0);
    EXPECT_EQ(flash_version().text, flash_.image_version[1]);
}

TEST_F(BiosFlash, TellsNoPercentageTwiceInASecondAttempt)
{
    const std::string path = flash_.image[1];
    const char *reason = nullptr;
    {
        const held_condition fault(CONTRACT_FLASH_CANNOT_BE_WRITTEN); // a look whether the surroundings can
        reason = fault.reason();
    }
    NEEDS(reason);
    programming twice([&](std::int32_t handle, bios_flash_progress_area_t *area) {
        {
            const held_condition fault(CONTRACT_FLASH_CANNOT_BE_WRITTEN);
            if (program(handle, area, flash_.instance, path.c_str(), 1) == 0)
                return 1;
        }
        return program(handle, area, flash_.instance, path.c_str(), 2);
    });
    ASSERT_EQ(twice.result(), 0);
    EXPECT_TRUE(twice.never_went_back());
    EXPECT_EQ(twice.told().back().percent, 100U);
    EXPECT_EQ(twice.told().back().attempt, 2U);
}

TEST_F(BiosFlash, HasNoVersionAfterAProgrammingThatWasCutOff)
{
    const auto cut = begun_programming();
    ASSERT_TRUE(cut) << "no programming could be interrupted";
    cut->kill();
    EXPECT_EQ(flash_version().result, NO_VERSION);
    EXPECT_EQ(result_of(flash_.image[1]), 0);
    EXPECT_EQ(flash_version().text, flash_.image_version[1]);
    EXPECT_TRUE(holds(content_of_file(flash_.image[1])));
}

TEST_F(BiosFlash, IsProgrammedByOneProcessAtATime)
{
    const auto first = begun_programming();
    ASSERT_TRUE(first) << "no programming was slow enough to be met";
    bios_flash_progress_area_t area = {};
    EXPECT_EQ(result_code(program(own_endpoint(), &area, flash_.instance, flash_.image[0])), IN_USE);
    EXPECT_EQ(first->result(), 0);
}

TEST(MissingFlash, CannotBeProgrammedAndHasNoVersion)
{
    std::uint32_t instance = 0;
    NEEDS(contract_missing_flash(&instance));
    const scratch_file image("image", std::string(4096, 'i'));
    EXPECT_EQ(programming(programs(instance, image.path())).result(), NO_FLASH);
    EXPECT_EQ(version_by([&](char *text) { return get_bios_flash_version(text, instance); }).result, NO_ACCESS);
}

TEST_F(ChipsetFlash, IsErasedWhole)
{
    ASSERT_EQ(erase(), 0);
    EXPECT_NE(flash_version().result, 0);
    const std::string found = contents();
    NEEDS(unread_);
    EXPECT_EQ(found.find_first_not_of('\xff'), std::string::npos);
}

TEST_F(ChipsetFlash, ReadsBackEqualWhenItWasErasedAndProgrammed)
{
    for (unsigned image = 0; image < 2; ++image) {
        ASSERT_EQ(erase(image), 0);
        programming writing(writes(flash_.image[image]));
        ASSERT_EQ(writing.result(), 0);
        EXPECT_TRUE(writing.never_went_back());
        EXPECT_TRUE(writing.told_percent(100));
        EXPECT_EQ(flash_version().text, flash_.image_version[image]);
        EXPECT_TRUE(holds(content_of_file(flash_.image[image])));
    }
}

// Without erasing, a part keeps bits of what it held. Whatever the service does about it, 0 and 100 percent say
// that the flash equals the image.
TEST_F(ChipsetFlash, IsNotDoneWhileItHoldsBitsOfAnotherImage)
{
    ASSERT_EQ(erase(), 0);
    ASSERT_EQ(programming(writes(flash_.image[0])).result(), 0);
    programming over_it(writes(flash_.image[1]));
    const std::optional<result_code> result = over_it.result();
    if (result == 0) {
        EXPECT_TRUE(holds(content_of_file(flash_.image[1])));
        EXPECT_EQ(flash_version().text, flash_.image_version[1]);
    } else {
        EXPECT_EQ(result, PROGRAM_FAILED);
        EXPECT_FALSE(over_it.told_percent(100)) << "100 percent were reported before the flash was read back";
        EXPECT_EQ(flash_version().result, NO_VERSION);
    }
}

TEST_F(ChipsetFlash, TellsWhenItDoesNotReadBackAsTheImage)
{
    ASSERT_EQ(erase(), 0);
    held_condition fault(CONTRACT_FLASH_KEEPS_OTHER_BYTES);
    NEEDS(fault.reason());
    programming failed(writes(flash_.image[1]));
    EXPECT_EQ(failed.result(), PROGRAM_FAILED);
    EXPECT_FALSE(failed.told_percent(100)) << "100 percent were reported before the flash was read back";
    EXPECT_EQ(flash_version().result, NO_VERSION);
    fault.end();
    ASSERT_EQ(erase(), 0);
    EXPECT_EQ(programming(writes(flash_.image[1])).result(), 0);
}

TEST_F(ChipsetFlash, HasNoVersionBetweenErasingAndProgramming)
{
    ASSERT_EQ(erase(), 0);
    ASSERT_EQ(programming(writes(flash_.image[0])).result(), 0);
    ASSERT_EQ(flash_version().result, 0);
    ASSERT_EQ(erase(), 0);
    EXPECT_EQ(flash_version().result, NO_VERSION);
}

TEST_F(ChipsetFlash, RefusesImagesThatDoNotFit)
{
    const scratch_file empty("empty", "");
    const scratch_file large("large", content_of_file(flash_.image[1]) + "x");
    const scratch_file missing("missing");
    EXPECT_EQ(programming(writes(empty.path())).result(), IMAGE_SIZE);
    EXPECT_TRUE(is_too_large(programming(writes(large.path())).result()));
    EXPECT_EQ(programming(writes(missing.path())).result(), IMAGE_READ);
}

TEST_F(ChipsetFlash, TellsWhenItCannotBeErased)
{
    const held_condition fault(CONTRACT_FLASH_CANNOT_BE_ERASED);
    NEEDS(fault.reason());
    EXPECT_NE(erase(), 0);
}
