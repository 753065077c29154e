// Which images may be written into which flash.
#include <gtest/gtest.h>

#include "bios_refusals.h"
#include "image_judgement.h"

namespace
{

constexpr image_wish ORDERED = {.is_ordered = true};
constexpr image_wish NOT_ORDERED = {};

struct subject {
    image_facts image{.size_bytes = 4096, .version = "v3.5.0(09/17/12)"};
    flash_facts flash{.size_bytes = 4096, .version = "v3.5.0(09/17/12)"};
};

std::uint32_t judged(const subject &of, const image_wish &wish)
{
    return judge_image(of.image, of.flash, wish);
}

} // namespace

TEST(ImageJudgement, TakesAnImageOfTheFlashsSizeThatIsNotOlder)
{
    subject of;
    EXPECT_EQ(judged(of, ORDERED), 0U);
    of.image.version = "v3.6.0(01/01/01)";
    EXPECT_EQ(judged(of, ORDERED), 0U);
    of.flash.version = "";
    EXPECT_EQ(judged(of, ORDERED), 0U);
}

TEST(ImageJudgement, RefusesALargerImageWhateverIsForced)
{
    subject of;
    of.image.size_bytes = 4097;
    EXPECT_EQ(judged(of, NOT_ORDERED), BIOS_REFUSED_TOO_LARGE);
    EXPECT_EQ(judged(of, {.is_ordered = true, .forced = BIOS_FORCE_ALL}), BIOS_REFUSED_TOO_LARGE);
}

TEST(ImageJudgement, RefusesASmallerImageThatWasOrderedUnlessItIsForced)
{
    subject of;
    of.image.size_bytes = 4095;
    EXPECT_EQ(judged(of, ORDERED), BIOS_REFUSED_SMALLER);
    EXPECT_EQ(judged(of, {.is_ordered = true, .forced = BIOS_FORCE_SMALLER}), 0U);
    EXPECT_EQ(judged(of, NOT_ORDERED), 0U);
}

TEST(ImageJudgement, RefusesAnOlderImageThatWasOrderedUnlessItIsForced)
{
    subject of;
    of.image.version = "v3.4.0(09/17/14)";
    EXPECT_EQ(judged(of, ORDERED), BIOS_REFUSED_OLDER);
    EXPECT_EQ(judged(of, {.is_ordered = true, .forced = BIOS_FORCE_SMALLER}), BIOS_REFUSED_OLDER);
    EXPECT_EQ(judged(of, {.is_ordered = true, .forced = BIOS_FORCE_OLDER}), 0U);
    EXPECT_EQ(judged(of, NOT_ORDERED), 0U);
}

TEST(ImageJudgement, RefusesAnImageWithoutAVersionFromWhomeverItComes)
{
    subject of;
    of.image.version = "";
    EXPECT_EQ(judged(of, ORDERED), BIOS_REFUSED_NO_VERSION);
    EXPECT_EQ(judged(of, NOT_ORDERED), BIOS_REFUSED_NO_VERSION);
    EXPECT_EQ(judged(of, {.is_ordered = true, .forced = BIOS_FORCE_NO_VERSION}), 0U);
}

TEST(ImageJudgement, RefusesAnotherFamilysManifest)
{
    subject of;
    of.flash.card_id = 90;
    of.flash.family = 17;
    of.image.manifest_state = image_manifest_state::intact;
    of.image.manifest.family = 17;
    of.image.manifest.card_ids = {89, 90};
    EXPECT_EQ(judged(of, NOT_ORDERED), 0U);
    of.image.manifest.card_ids = {89, 91};
    EXPECT_EQ(judged(of, NOT_ORDERED), BIOS_REFUSED_FAMILY);
    EXPECT_EQ(judged(of, ORDERED), BIOS_REFUSED_FAMILY);
    EXPECT_EQ(judged(of, {.is_ordered = true, .forced = BIOS_FORCE_FAMILY}), 0U);
    of.image.manifest.card_ids = {};
    EXPECT_EQ(judged(of, NOT_ORDERED), 0U);
    of.image.manifest.family = 19;
    EXPECT_EQ(judged(of, NOT_ORDERED), BIOS_REFUSED_FAMILY);
}

TEST(ImageJudgement, RefusesADamagedManifestWhateverIsForced)
{
    subject of;
    of.image.manifest_state = image_manifest_state::damaged;
    EXPECT_EQ(judged(of, NOT_ORDERED), BIOS_REFUSED_MANIFEST);
    EXPECT_EQ(judged(of, {.is_ordered = true, .forced = BIOS_FORCE_ALL}), BIOS_REFUSED_MANIFEST);
}

TEST(ImageJudgement, AsksForOrdersAndSignaturesWhenThePolicyDoes)
{
    const image_wish forced = {.is_ordered = true, .forced = BIOS_FORCE_ALL};
    subject of;
    of.flash.policy.order_required = true;
    EXPECT_EQ(judged(of, NOT_ORDERED), BIOS_REFUSED_NO_ORDER);
    EXPECT_EQ(judged(of, ORDERED), 0U);
    of.flash.policy.signature_required = true;
    EXPECT_EQ(judged(of, forced), BIOS_REFUSED_UNSIGNED);
    of.image.signature = AGENT_OK;
    EXPECT_EQ(judged(of, forced), 0U);
    for (const std::uint32_t status : {AGENT_ERR_KEY_UNKNOWN, AGENT_ERR_KEY_REVOKED, AGENT_ERR_SIGNATURE}) {
        of.image.signature = status;
        EXPECT_EQ(judged(of, forced), BIOS_REFUSED_SIGNATURE) << status;
    }
    of.image.signature = AGENT_ERR_UNREADABLE;
    EXPECT_EQ(judged(of, forced), BIOS_REFUSED_NOT_CHECKED);
}

TEST(ImageJudgement, RefusesASecurityVersionBelowTheFloorWhateverIsForced)
{
    subject of;
    of.flash.security_floor = 2;
    EXPECT_EQ(judged(of, {.is_ordered = true, .forced = BIOS_FORCE_ALL}), BIOS_REFUSED_SECURITY);
    of.image.manifest_state = image_manifest_state::intact;
    of.image.manifest.security_version = 2;
    EXPECT_EQ(judged(of, ORDERED), BIOS_REFUSED_SECURITY) << "anybody can write that into a manifest";
    of.image.signature = AGENT_ERR_KEY_UNKNOWN;
    EXPECT_EQ(judged(of, ORDERED), BIOS_REFUSED_SECURITY);
    of.image.signature = AGENT_OK;
    EXPECT_EQ(judged(of, ORDERED), 0U);
}

TEST(ImageJudgement, ObeysThePolicyWithoutAnOrder)
{
    subject of;
    of.flash.policy = {.refuses_no_version = false, .refuses_older = true, .refuses_smaller = true};
    of.image.version = "";
    EXPECT_EQ(judged(of, NOT_ORDERED), 0U);
    of.image.version = "v3.4.0(09/17/14)";
    EXPECT_EQ(judged(of, NOT_ORDERED), BIOS_REFUSED_OLDER);
    of.image = {.size_bytes = 1, .version = "v3.6.0(09/17/14)"};
    EXPECT_EQ(judged(of, NOT_ORDERED), BIOS_REFUSED_SMALLER);
}

TEST(ImageJudgement, ComparesVersionsByTheirNumbers)
{
    EXPECT_TRUE(is_older_version("v3.9.0(09/17/12)", "v3.10.0(09/17/12)"));
    EXPECT_FALSE(is_older_version("v3.10.0(09/17/12)", "v3.9.0(09/17/12)"));
    EXPECT_TRUE(is_older_version("v2.99.0(01/01/20)", "v3.0.0(01/01/10)"));
    EXPECT_FALSE(is_older_version("v3.5.0(09/17/12)", "v3.5.0(09/17/13)"));
    for (const char *text : {"", "v", "3.5.0", "v3.5", "v3.x.0", "v99999999999.1.0"}) {
        EXPECT_FALSE(is_older_version(text, "v3.5.0(09/17/12)")) << text;
        EXPECT_FALSE(is_older_version("v3.5.0(09/17/12)", text)) << text;
    }
}
