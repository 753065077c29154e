// What a card demands: its policy, its keys and its security version, as files of its slot folder.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "agent_messages.h"
#include "card_policy.h"
#include "flash_fixture.h"
#include "security_floor.h"
#include "temporary_folder.h"
#include "trusted_keys.h"

namespace
{

namespace fs = std::filesystem;

class CardPolicy : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directories(slot());
        ASSERT_EQ(chassis_attach(folder_.path(), TEST_SLOT), 0);
    }

    fs::path slot() const { return folder_.path("slots/" + std::to_string(TEST_SLOT)); }
    fs::path put(const std::string &name, const std::string &text) const
    {
        fs::create_directories((slot() / name).parent_path());
        std::ofstream(slot() / name) << text;
        ::chmod((slot() / name).c_str(), 0644);
        ::chmod((slot() / name).parent_path().c_str(), 0755);
        return slot() / name;
    }
    std::string text_of(const std::string &name) const
    {
        std::ifstream file(slot() / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // What is wrong with the policy.
    static std::string policy_problem()
    {
        card_policy policy;
        std::string problem;
        EXPECT_FALSE(card_policy_load(policy, problem));
        EXPECT_EQ(policy, card_policy());
        return problem;
    }
    static std::string floor_problem()
    {
        std::uint32_t floor = 77;
        std::string problem;
        EXPECT_FALSE(security_floor_load(floor, problem));
        EXPECT_EQ(floor, 77u);
        std::string raise_problem;
        EXPECT_FALSE(security_floor_raise(1000, raise_problem));
        EXPECT_EQ(raise_problem, problem);
        return problem;
    }
    static std::string keys_problem()
    {
        trusted_keys keys;
        std::string problem;
        EXPECT_FALSE(trusted_keys_load(keys, problem));
        EXPECT_TRUE(keys.keys.empty());
        return problem;
    }
    static std::uint32_t floor()
    {
        std::uint32_t floor = 0;
        std::string problem;
        EXPECT_TRUE(security_floor_load(floor, problem)) << problem;
        return floor;
    }

private:
    temporary_folder folder_{"card-policy"};
};

std::string parse_problem(const std::string &text)
{
    card_policy policy;
    std::string problem;
    EXPECT_FALSE(card_policy_parse(text, policy, problem)) << text;
    return problem;
}

} // namespace

TEST_F(CardPolicy, WithoutAFileHasTheDefaults)
{
    card_policy policy;
    policy.signature_required = true;
    std::string problem;
    ASSERT_TRUE(card_policy_load(policy, problem)) << problem;
    EXPECT_FALSE(policy.signature_required);
    EXPECT_FALSE(policy.order_required);
    EXPECT_TRUE(policy.refuses_no_version);
    EXPECT_FALSE(policy.refuses_older);
    EXPECT_FALSE(policy.refuses_smaller);
    EXPECT_EQ(policy.loader_folders, std::vector<std::string>{"/bootflash"});
}

TEST_F(CardPolicy, IsReadFromTheFile)
{
    put("policy", "# of this card\n\n signed = required\norders=required\r\nno_version = pass\nolder = refuse\n"
                  "\tsmaller = refuse\nloader_folders = /bootflash  /mnt/pss/loaders");
    card_policy policy;
    std::string problem;
    ASSERT_TRUE(card_policy_load(policy, problem)) << problem;
    const card_policy expected = {.signature_required = true,
                                  .order_required = true,
                                  .refuses_no_version = false,
                                  .refuses_older = true,
                                  .refuses_smaller = true,
                                  .loader_folders = {"/bootflash", "/mnt/pss/loaders"}};
    EXPECT_EQ(policy, expected);
    put("policy", "loader_folders =\n");
    ASSERT_TRUE(card_policy_load(policy, problem)) << problem;
    EXPECT_TRUE(policy.loader_folders.empty());
    EXPECT_FALSE(policy.signature_required); // each look is a new one
}

TEST_F(CardPolicy, WithAnythingElseInItIsAProblem)
{
    EXPECT_EQ(parse_problem("signed = required\nsined = required\n"), "line 2: unknown key: sined");
    EXPECT_EQ(parse_problem("signed required"), "line 1: not of the form key = value");
    EXPECT_EQ(parse_problem("\n\nsigned = yes"), "line 3: signed is required or optional, not: yes");
    EXPECT_EQ(parse_problem("signed ="), "line 1: signed is required or optional, not: ");
    EXPECT_EQ(parse_problem("signed = required # always"),
              "line 1: signed is required or optional, not: required # always");
    EXPECT_EQ(parse_problem("signed = required\nsigned = optional"), "line 2: the key is there twice: signed");
    for (const std::string folder : {"bootflash", "/", "/bootflash/", "/bootflash/../etc", "/a//b", "/.", "/a b;c"})
        EXPECT_NE(parse_problem("loader_folders = " + folder).find("not an absolute path of a folder"),
                  std::string::npos)
            << folder;
}

TEST_F(CardPolicy, ThatIsNoTextOfThisCardIsAProblem)
{
    const fs::path file = put("policy", std::string("signed = required\n\0", 19));
    EXPECT_EQ(policy_problem(), "policy: is not a text");
    put("policy", std::string(65 << 10, '#'));
    EXPECT_EQ(policy_problem(), "policy: is too large");
    put("policy", "signed = required\n");
    ::chmod(file.c_str(), 0664);
    EXPECT_EQ(policy_problem(), "policy: other users may write to it");
    fs::remove(file);
    fs::create_directory(file);
    EXPECT_EQ(policy_problem(), "policy: is not a regular file");
    fs::remove(file);
    fs::create_symlink("/dev/null", file);
    EXPECT_EQ(policy_problem(), "policy: Too many levels of symbolic links");
    fs::remove(file);
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(policy_problem(), "policy: is not a regular file");
    fs::remove(file);
    put("policy", "orders = maybe\n");
    EXPECT_EQ(policy_problem(), "policy: line 1: orders is required or optional, not: maybe");
}

TEST_F(CardPolicy, PassesOnlySignaturesThatCount)
{
    card_policy policy;
    EXPECT_TRUE(policy.passes_signature(AGENT_OK));
    EXPECT_TRUE(policy.passes_signature(AGENT_ERR_NOT_SIGNED));
    EXPECT_TRUE(policy.passes_signature(AGENT_ERR_KEY_UNKNOWN));
    for (const std::uint32_t status : {AGENT_ERR_KEY_REVOKED, AGENT_ERR_SIGNATURE, AGENT_ERR_MANIFEST,
                                       AGENT_ERR_KEYS, AGENT_ERR_UNREADABLE, AGENT_ERR_BUSY})
        EXPECT_FALSE(policy.passes_signature(status)) << std::hex << status;
    policy.signature_required = true;
    EXPECT_TRUE(policy.passes_signature(AGENT_OK));
    EXPECT_FALSE(policy.passes_signature(AGENT_ERR_NOT_SIGNED));
    EXPECT_FALSE(policy.passes_signature(AGENT_ERR_KEY_UNKNOWN));
}

TEST_F(CardPolicy, SecurityFloorOnlyRises)
{
    std::string problem;
    EXPECT_EQ(floor(), 0u);
    ASSERT_TRUE(security_floor_raise(0, problem)) << problem;
    EXPECT_FALSE(fs::exists(slot() / SECURITY_FLOOR_FILE));
    ASSERT_TRUE(security_floor_raise(7, problem)) << problem;
    EXPECT_EQ(floor(), 7u);
    ASSERT_TRUE(security_floor_raise(3, problem)) << problem;
    EXPECT_EQ(floor(), 7u);
    EXPECT_EQ(text_of(SECURITY_FLOOR_FILE), "7\n");
    ASSERT_TRUE(security_floor_raise(UINT32_MAX, problem)) << problem;
    EXPECT_EQ(floor(), UINT32_MAX);
}

TEST_F(CardPolicy, SecurityFloorOfSeveralRaisersIsTheHighest)
{
    for (std::uint32_t version = 1; version <= 40; ++version) {
        if (::fork() == 0) {
            std::string problem;
            ::_exit(security_floor_raise(version, problem) ? 0 : 1);
        }
    }
    int status = 0;
    for (int child = 0; child < 40; ++child) {
        ASSERT_GT(::wait(&status), 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(floor(), 40u);
}

TEST_F(CardPolicy, SecurityFloorThatIsNoNumberIsAProblem)
{
    for (const std::string text : {"", "x\n", "-1\n", "4294967296\n", "7 8\n", "0x7\n"}) {
        put(SECURITY_FLOOR_FILE, text);
        EXPECT_EQ(floor_problem(), "security_version: holds no number") << text;
        EXPECT_EQ(text_of(SECURITY_FLOOR_FILE), text);
    }
    ::chmod(put(SECURITY_FLOOR_FILE, "7\n").c_str(), 0666);
    EXPECT_EQ(floor_problem(), "security_version: other users may write to it");
}

TEST_F(CardPolicy, SecurityFloorThatCannotBeWrittenSaysSo)
{
    fs::create_directories(slot() / "security_version.new" / "in the way");
    std::string problem;
    EXPECT_FALSE(security_floor_raise(7, problem));
    EXPECT_EQ(problem, "security_version: File exists");
    EXPECT_EQ(floor(), 0u);
}

TEST_F(CardPolicy, KeysAreThoseOfTheFolder)
{
    trusted_keys keys;
    std::string problem;
    ASSERT_TRUE(trusted_keys_load(keys, problem)) << problem;
    EXPECT_TRUE(keys.keys.empty());

    signing_key first;
    first.fill(1);
    signing_key second;
    second.fill(2);
    put("keys/first.pub", signing_key_format(first, PUBLIC_KEY_KIND));
    put("keys/second.pub", "# of the maker\n" + signing_key_format(second, PUBLIC_KEY_KIND));
    put("keys/README", "no key\n");
    put("keys/revoked", "# lost\n" + signing_key_id_text(signing_key_id(first)) + "\n");
    ASSERT_TRUE(trusted_keys_load(keys, problem)) << problem;
    EXPECT_EQ(keys.keys, (std::vector<signing_key>{first, second}));
    ASSERT_NE(keys.find(signing_key_id(second)), nullptr);
    EXPECT_EQ(*keys.find(signing_key_id(second)), second);
    EXPECT_TRUE(keys.is_revoked(signing_key_id(first)));
    EXPECT_FALSE(keys.is_revoked(signing_key_id(second)));
    EXPECT_EQ(keys.find(image_key_id{}), nullptr);
}

TEST_F(CardPolicy, AKeyThatIsNoneIsAProblem)
{
    signing_key key;
    key.fill(0xab);
    const std::string text = signing_key_format(key, PUBLIC_KEY_KIND);
    std::string digits;
    for (int byte = 0; byte < 32; ++byte)
        digits += "ab";
    EXPECT_EQ(text, "ed25519-public " + digits + "\n");
    for (const std::string &bad :
         {std::string(), text + text, signing_key_format(key, SECRET_KEY_KIND), text.substr(0, text.size() - 2),
          text.substr(0, text.size() - 1) + "0", text + "more\n"}) {
        put("keys/a.pub", bad);
        EXPECT_EQ(keys_problem(), "keys/a.pub: is not a public key") << bad;
    }
    ::chmod(put("keys/a.pub", text).c_str(), 0646);
    EXPECT_EQ(keys_problem(), "keys/a.pub: other users may write to it");
    ::chmod(put("keys/a.pub", text).c_str(), 0644);
    ::chmod((slot() / "keys").c_str(), 0777);
    EXPECT_EQ(keys_problem(), "keys: other users may write to it; take that away with: chmod go-w");
    ::chmod((slot() / "keys").c_str(), 0755);
    put("keys/revoked", "first\n");
    EXPECT_EQ(keys_problem(), "keys/revoked: line 1: not the id of a key: first");
}

TEST_F(CardPolicy, MoreKeysThanACardHasAreAProblem)
{
    signing_key key = {};
    for (unsigned number = 0; number <= SIGNING_KEYS_MAX; ++number) {
        key[0] = static_cast<std::uint8_t>(number);
        put("keys/" + std::to_string(number) + ".pub", signing_key_format(key, PUBLIC_KEY_KIND));
    }
    EXPECT_EQ(keys_problem(), "keys: holds more keys than 64");
}
