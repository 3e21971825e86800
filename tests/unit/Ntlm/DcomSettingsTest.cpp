#include "DCOM/DcomSettings.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "DCOM/ntlm/Crypto.h"

namespace quelm::dcom {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

DcomSettings parse(std::string text) {
    return parseDcomSettings(text, "dcom.conf", "router7.plant.example");
}

// What decides who gets in and how well calls are protected, in one line.
std::string protection(const DcomSettings& settings) {
    std::string line = settings.minimumLevel == SecurityLevel::connect     ? "connect"
                       : settings.minimumLevel == SecurityLevel::integrity ? "integrity"
                                                                           : "privacy";
    line += settings.ntlm.allowNtlmV1Ess ? " v1" : "";
    line += settings.ntlm.allowAnonymous ? " anonymous" : "";
    return line;
}

TEST(DcomSettings, AnEmptyFileGivesTheStrictDefaults) {
    for (const char* text : {"", "\xEF\xBB\xBF", "; nothing\n# here\n\n", "[Listen]\n[Security]\n[Accounts]\n"}) {
        const DcomSettings settings = parse(text);
        EXPECT_THAT(settings.addresses, ElementsAre("127.0.0.1"));
        EXPECT_EQ(settings.activationPort, 135);
        EXPECT_EQ(settings.objectPort, 49200);
        EXPECT_EQ(protection(settings), "integrity");
        EXPECT_EQ(settings.ntlm.computerName, "ROUTER7");
        EXPECT_EQ(settings.ntlm.domainName, "WORKGROUP");
        EXPECT_EQ(settings.ntlm.dnsComputerName, "router7.plant.example");
        EXPECT_EQ(settings.ntlm.dnsDomainName, "plant.example");
        EXPECT_THAT(settings.problems, IsEmpty());
        EXPECT_THAT(settings.notices, ElementsAre("[Accounts] holds no usable account: every client is refused"));
    }
}

TEST(DcomSettings, ReadsEverySetting) {
    const DcomSettings settings = parse(
        "\xEF\xBB\xBF; plant network\r\n[listen]\r\nADDRESS = 127.0.0.1, 10.1.2.3 ,10.1.2.3\r\nActivationPort=1135\r\n"
        "ObjectPort = 0\r\n[Security]\r\nMinimumLevel = Connect\r\nallowntlmv1 = YES\r\nAllowAnonymous = yes\r\n"
        "ComputerName = quelm-01\r\nDomain = plant\r\n[Accounts]\r\n"
        "PLANT\\historian = nt:A4F49C406510bdcab6824ee7c30fd852\r\n*\\Display = password:a=b; c\r\n"
        "guest = Password:x\r\n");
    EXPECT_THAT(settings.problems, IsEmpty());
    EXPECT_THAT(settings.addresses, ElementsAre("127.0.0.1", "10.1.2.3"));
    EXPECT_EQ(settings.activationPort, 1135);
    EXPECT_EQ(settings.objectPort, 0);
    EXPECT_EQ(protection(settings), "connect v1 anonymous");
    EXPECT_EQ(settings.ntlm.computerName, "QUELM-01");
    EXPECT_EQ(settings.ntlm.domainName, "PLANT");
    EXPECT_EQ(settings.accounts.find("plant", "Historian"), ntlm::ntHash("Password"));
    EXPECT_EQ(settings.accounts.find("office", "Historian"), std::nullopt);
    EXPECT_EQ(settings.accounts.find("office", "display"), ntlm::ntHash("a=b; c"));
    EXPECT_EQ(settings.accounts.find("", "guest"), ntlm::ntHash("x"));
    EXPECT_THAT(
        settings.notices,
        ElementsAre(StartsWith("[Listen] Address = 10.1.2.3:"), StartsWith("[Security] MinimumLevel = connect:"),
                    StartsWith("[Security] AllowNTLMv1 = yes:"), StartsWith("[Security] AllowAnonymous = yes:")));
}

TEST(DcomSettings, ADamagedSecurityValueFallsBackToTheStrictDefault) {
    for (const char* line :
         {"MinimumLevel = conect", "MinimumLevel =", "MinimumLevel = 2", "AllowNTLMv1 = true", "AllowNTLMv1 = yess",
          "AllowAnonymous = 1", "AllowAnonymous = ", "Allow Anonymous = yes", "AllowAnonymous yes",
          "AllowAnonymous: yes", "[Security\nAllowAnonymous = yes", "[Securty]\nAllowAnonymous = yes",
          "[Listen]\nAllowNTLMv1 = yes", "ComputerName = a name", "ComputerName = SIXTEENLETTERS16", "Domain = "}) {
        const DcomSettings settings = parse(std::string("[Security]\n") + line + "\n[Accounts]\na = password:b\n");
        EXPECT_EQ(protection(settings), "integrity") << line;
        EXPECT_EQ(settings.ntlm.computerName, "ROUTER7");
        EXPECT_EQ(settings.ntlm.domainName, "WORKGROUP");
        EXPECT_EQ(settings.problems.size(), 1U) << line;
        EXPECT_THAT(settings.notices, IsEmpty());
        EXPECT_FALSE(settings.accounts.empty());
    }
}

TEST(DcomSettings, ADamagedLineCostsOnlyItself) {
    struct Case {
        const char* text;
        const char* problem;
    };
    for (const Case& c : {
             Case{
                 "[Listen]\nAddress = ::1, 127.0.0.2",
                 "dcom.conf: [Listen] Address: \"::1\" is not an IPv4 address and is left out. Write numeric addresses "
                 "such as 192.168.1.5, with commas between them."},
             Case{"[Listen]\nAddress = 127.0.0.2\nActivationPort = 0",
                  "dcom.conf: [Listen] ActivationPort: \"0\" is not a port, 135 holds. Write a whole number from 1 to "
                  "65535."},
             Case{
                 "[Listen]\nAddress = 127.0.0.2\nObjectPort = 65536",
                 "dcom.conf: [Listen] ObjectPort: \"65536\" is not a port, 49200 holds. Write a whole number from 0 to "
                 "65535."},
             Case{"[Listen]\nAddress = 127.0.0.2\nObjectPort = 135",
                  "dcom.conf: [Listen] ObjectPort: it is the same as ActivationPort, any free port is taken. Give each "
                  "a port of its own."},
             Case{"\r\nloose\r\n[Listen]\r\nAddress = 127.0.0.2",
                  "dcom.conf: line 2: neither a [section] heading nor \"name = value\" in UTF-8, the line is left out. "
                  "Correct it, or begin it with ; to make it a comment."},
             Case{
                 "[Listen] Port = 5\rAddress = 127.0.0.2",
                 "dcom.conf: line 1: what stands behind the section heading is left out. Put it on a line of its own."},
             Case{"Address = 10.0.0.1\n[Listen]\nAddress = 127.0.0.2",
                  "dcom.conf: before the first section: lines outside the known sections are left out. Use [Listen], "
                  "[Security] and [Accounts]."},
             Case{"[Listen\nAddress = 10.0.0.1\n[Listen]\nAddress = 127.0.0.2",
                  "dcom.conf: line 1: a section heading without ], the lines under it are left out. Add the ]."},
         }) {
        const DcomSettings settings = parse(c.text);
        EXPECT_THAT(settings.problems, ElementsAre(c.problem)) << c.text;
        EXPECT_THAT(settings.addresses, ElementsAre("127.0.0.2")) << c.text;
    }
    EXPECT_THAT(parse("[Listen]\nAddress = nowhere, , 1.2.3").addresses, ElementsAre("127.0.0.1"));
}

TEST(DcomSettings, ADamagedAccountIsLeftOutAndItsSecretNeverShown) {
    for (const char* line :
         {"joe = GEHEIM", "joe = nt:GEHEIM", "joe = nt:a4f49c406510bdcab6824ee7c30fd8",
          "joe = password:", "joe = nt:31d6cfe0d16ae931b73c59d7e0c089c0", "joe password:GEHEIM",
          "joe password:GEHEIM = x", "\\ = password:GEHEIM", "A\\B\\joe = password:GEHEIM", "A*\\joe = password:GEHEIM",
          "jo,e = password:GEHEIM", "= password:GEHEIM", "joe = password:GEHEIM\xFF", "password:GEHEIM"}) {
        const DcomSettings settings =
            parse(std::string("[Accounts]\nann = password:ok\n") + line + "\nbob = password:ok");
        EXPECT_EQ(settings.problems.size(), 1U) << line;
        EXPECT_THAT(settings.problems, Not(Contains(HasSubstr("GEHEIM")))) << line;
        EXPECT_TRUE(settings.accounts.knowsUser("ann") && settings.accounts.knowsUser("bob")) << line;
        EXPECT_FALSE(settings.accounts.knowsUser("joe")) << line;
    }
}

TEST(DcomSettings, AFileOfAnotherKindDoesNotSwampTheLog) {
    std::string lines = std::string(1000, '[') + '\n';
    for (int i = 0; i < 1000; ++i) {
        lines += "\xD0\xCF\x11\n";
    }
    const DcomSettings settings = parse(lines);
    EXPECT_EQ(settings.problems.size(), 51U);
    EXPECT_EQ(settings.problems.back(), "dcom.conf: further faults are not listed. Check that this is the right file.");
}

TEST(DcomSettings, TheTextIsWipedAfterwards) {
    std::string text = "[Accounts]\njoe = password:secret\n";
    parseDcomSettings(text, "dcom.conf", "host");
    EXPECT_EQ(text.find("secret"), std::string::npos);
}

class SettingsFile : public ::testing::Test {
 protected:
    SettingsFile() { std::filesystem::create_directory(folder); }
    ~SettingsFile() override { std::filesystem::remove_all(folder); }
    void write(const std::string& text, mode_t mode) {
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
    }

    std::filesystem::path folder =
        std::filesystem::path(::testing::TempDir()) / ("dcom-settings-" + std::to_string(getpid()));
    std::string path = folder / "dcom.conf";
};

TEST_F(SettingsFile, AMissingFileIsNoProblem) {
    const DcomSettings settings = readDcomSettings(path);
    EXPECT_THAT(settings.problems, IsEmpty());
    EXPECT_FALSE(settings.ntlm.computerName.empty());
}

TEST_F(SettingsFile, WarnsWhenOthersCanReadAccounts) {
    for (const mode_t mode : {0600U, 0400U, 0640U, 0604U}) {
        write("[Accounts]\njoe = password:secret\n", mode);
        const DcomSettings settings = readDcomSettings(path, "host");
        EXPECT_EQ(settings.problems.size(), (mode & 077) != 0 ? 1U : 0U) << mode;
        EXPECT_TRUE(settings.accounts.knowsUser("joe"));
        std::filesystem::remove(path);
    }
}

TEST_F(SettingsFile, WhatCannotBeReadGivesTheDefaults) {
    write("[Security]\nAllowAnonymous = yes\n;" + std::string(1024 * 1024, 'x'), 0600);
    for (const std::string& bad : {path, folder.string(), std::string("/dev/zero")}) {
        const DcomSettings settings = readDcomSettings(bad, "host");
        EXPECT_EQ(protection(settings), "integrity");
        EXPECT_THAT(settings.problems, ElementsAre(StartsWith(bad + ": the file cannot be used ("))) << bad;
    }
}

TEST(DcomSettings, ThePathComesFromTheEnvironment) {
    setenv("QUELM_DCOM_CONF", "/run/plant.conf", 1);
    EXPECT_EQ(dcomSettingsPath(), "/run/plant.conf");
    unsetenv("QUELM_DCOM_CONF");
    EXPECT_EQ(dcomSettingsPath(), "/etc/quelm/dcom.conf");
}

}  // namespace
}  // namespace quelm::dcom
