#include "dcom/DcomSettings.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "dcom/ntlm/Crypto.h"

namespace quelm::dcom {
namespace {

using namespace ::testing;

DcomSettings parse(std::string text) {
    DcomSettings settings = parseDcomSettings(text, "dcom.conf", "router7.plant.example");
    EXPECT_EQ(text.find("password"), std::string::npos) << "the text is wiped";
    return settings;
}

// What decides who gets in and how well calls are protected, in one line.
std::string protection(const DcomSettings& settings) {
    std::string line(rpc::levelName(settings.minimumLevel));
    line += settings.ntlm.allowNtlmV1Ess ? " v1" : "";
    line += settings.ntlm.allowAnonymous ? " anonymous" : "";
    return line;
}

// The same for what goes the other way.
std::string callbacks(const DcomSettings& settings) {
    const auto& [account, level, allowNoLogOn] = settings.callbacks;
    return (account ? account->domain + '\\' + account->user : "nobody") + ' ' + std::string(rpc::levelName(level)) +
           (allowNoLogOn ? " unprotected" : "");
}

std::string names(const DcomSettings& settings) {
    const auto& ntlm = settings.ntlm;
    return ntlm.computerName + ' ' + ntlm.domainName + ' ' + ntlm.dnsComputerName + ' ' + ntlm.dnsDomainName;
}

TEST(DcomSettings, AnEmptyFileGivesTheStrictDefaults) {
    for (const char* text : {"", "\xEF\xBB\xBF", "; nothing\n# here\n\n", "[Listen]\n[Security]\n[Accounts]\n"}) {
        const DcomSettings settings = parse(text);
        EXPECT_THAT(settings.addresses, ElementsAre("127.0.0.1"));
        EXPECT_EQ(settings.activationPort, 135);
        EXPECT_EQ(settings.objectPort, 49200);
        EXPECT_EQ(protection(settings), "integrity");
        EXPECT_EQ(names(settings), "ROUTER7 WORKGROUP router7.plant.example plant.example");
        EXPECT_THAT(settings.problems, IsEmpty());
        EXPECT_THAT(settings.notices, ElementsAre("[Accounts] holds no usable account: every client is refused"));
    }
}

TEST(DcomSettings, ReadsEverySetting) {
    const DcomSettings settings = parse(
        "\xEF\xBB\xBF; plant network\r\n[listen]\r\nADDRESS = 127.0.0.1, 10.1.2.3 ,10.1.2.3\r\nActivationPort=1135\r\n"
        "ObjectPort = 0\r\n[Security]\r\nMinimumLevel = Connect\r\nallowntlmv1 = YES\r\nAllowAnonymous = yes\r\n"
        "OpenServerList = yes\r\n"
        "ComputerName = quelm-01\r\nDomain = plant\r\n[Clients]\r\nPingTimeout = 30\r\nFirstPing = 20\r\n"
        "CloseGrace = 1\r\nkeeprunning = Yes\r\n[Callbacks]\r\nAccount = PLANT\\quelm\r\nSecret = "
        "password:c;d\r\nMinimumLevel = connect\r\n"
        "AllowNoLogOn = yes\r\n[Accounts]\r\n"
        "PLANT\\historian = nt:A4F49C406510bdcab6824ee7c30fd852\r\n*\\Display = password:a=b; c\r\n"
        "guest = Password:x\r\n");
    EXPECT_THAT(settings.problems, IsEmpty());
    EXPECT_THAT(settings.addresses, ElementsAre("127.0.0.1", "10.1.2.3"));
    EXPECT_EQ(settings.activationPort, 1135);
    EXPECT_EQ(settings.objectPort, 0);
    EXPECT_EQ(protection(settings), "connect v1 anonymous");
    EXPECT_THAT(names(settings), StartsWith("QUELM-01 PLANT "));
    EXPECT_THAT((std::vector{settings.pingTimeout, settings.firstPing, settings.closeGrace}), ElementsAre(30, 20, 1));
    EXPECT_TRUE(settings.keepRunning);
    EXPECT_EQ(settings.accounts.find("plant", "Historian"), ntlm::ntHash("Password"));
    EXPECT_EQ(settings.accounts.find("office", "Historian"), std::nullopt);
    EXPECT_EQ(settings.accounts.find("office", "display"), ntlm::ntHash("a=b; c"));
    EXPECT_EQ(settings.accounts.find("", "guest"), ntlm::ntHash("x"));
    EXPECT_EQ(callbacks(settings), "PLANT\\quelm connect unprotected");
    ASSERT_TRUE(settings.callbacks.account);
    EXPECT_EQ(settings.callbacks.account->hash, ntlm::ntHash("c;d"));
    EXPECT_EQ(settings.callbacks.account->workstation, "QUELM-01");
    EXPECT_THAT(
        settings.notices,
        ElementsAre(StartsWith("[Listen] Address = 10.1.2.3:"), StartsWith("[Security] MinimumLevel = connect:"),
                    StartsWith("[Clients] PingTimeout = 30:"), StartsWith("[Security] AllowNTLMv1 = yes:"),
                    StartsWith("[Security] AllowAnonymous = yes:"), StartsWith("[Security] OpenServerList = yes:"),
                    StartsWith("[Callbacks] MinimumLevel = connect:"), StartsWith("[Callbacks] AllowNoLogOn = yes:")));
    EXPECT_TRUE(settings.openServerList);
}

TEST(DcomSettings, AccountsOfADomainComeInOnlyWhereTheyAreNamed) {
    const DcomSettings settings = parse(
        "[Security]\nKeytab = /etc/quelm/opc.keytab\n[Access]\nUsers = PLANT\\alice, bob\nGroups = S-1-5-32-544, "
        ",PLANT\\Readers");
    EXPECT_EQ(settings.keytab, "/etc/quelm/opc.keytab");
    EXPECT_EQ(settings.access.shown(), "PLANT\\alice, S-1-5-32-544, PLANT\\Readers");
    EXPECT_THAT(settings.problems, ElementsAre(HasSubstr("[Access] Users: \"bob\" is neither")));
    EXPECT_THAT(settings.notices, IsEmpty());
    for (const auto& [text, notice] : {std::pair("[Security]\nKeytab = /k", "every account of the domain is refused"),
                                       std::pair("[Access]\nUsers = a@b", "[Access] lets nobody in without"),
                                       std::pair("[Security]\nKeytab = k", "[Accounts] holds no usable account")}) {
        EXPECT_THAT(parse(text).notices, Contains(HasSubstr(notice))) << text;
    }
}

TEST(DcomSettings, ADamagedLineOfTheCallbacksNeverWeakensThem) {
    for (const auto& [lines, expected] :
         {std::pair{"Account = quelm\nSecret = nt:A4F49C406510bdcab6824ee7c30fd852\nMinimumLevel = none",
                    "\\quelm integrity"},
          {"Account = quelm\nSecret = password:GEHEIM\nAllowNoLogOn = perhaps", "\\quelm integrity"},
          {"Account = quelm\nMinimumLevel = privacy", "nobody privacy"},
          {"Secret = password:GEHEIM", "nobody integrity"},
          {"Account = A\\B\\quelm\nSecret = password:GEHEIM", "nobody integrity"},
          {"Account = quelm\nSecret = GEHEIM", "nobody integrity"},
          {"Account = quelm\nAccount = GEHEIM\nSecret = password:GEHEIM\nSecret = password:GEHEIM", "nobody integrity"},
          {"Level = connect", "nobody integrity"}}) {
        const DcomSettings settings = parse(std::string("[Callbacks]\n") + lines + "\n[Accounts]\na = password:b\n");
        EXPECT_EQ(callbacks(settings), expected) << lines;
        EXPECT_THAT(settings.problems, Not(IsEmpty())) << lines;
        EXPECT_THAT(settings.problems, Not(Contains(HasSubstr("GEHEIM")))) << lines;
        EXPECT_THAT(settings.notices, IsEmpty()) << lines;
    }
}

TEST(DcomSettings, ADamagedSecurityValueFallsBackToTheStrictDefault) {
    for (const char* line :
         {"MinimumLevel = conect", "MinimumLevel =", "MinimumLevel = 2", "AllowNTLMv1 = true", "AllowNTLMv1 = yess",
          "AllowAnonymous = 1", "AllowAnonymous = ", "Allow Anonymous = yes", "AllowAnonymous yes",
          "AllowAnonymous: yes", "[Security\nAllowAnonymous = yes", "[Securty]\nAllowAnonymous = yes",
          "[Listen]\nAllowNTLMv1 = yes", "ComputerName = a name", "ComputerName = SIXTEENLETTERS16", "Domain = "}) {
        const DcomSettings settings = parse(std::string("[Security]\n") + line + "\n[Accounts]\na = password:b\n");
        EXPECT_EQ(protection(settings), "integrity") << line;
        EXPECT_THAT(names(settings), StartsWith("ROUTER7 WORKGROUP "));
        EXPECT_EQ(settings.problems.size(), 1U) << line;
        EXPECT_THAT(settings.notices, IsEmpty());
        EXPECT_FALSE(settings.accounts.empty());
    }
}

TEST(DcomSettings, ADamagedLineCostsOnlyItself) {
    const struct {
        const char* text;
        const char* problem;
    } cases[] = {
        {"[Listen]\nAddress = ::1, 127.0.0.2",
         "[Listen] Address: \"::1\" is not an IPv4 address and is left out. Write"},
        {"[Listen]\nAddress = 127.0.0.2\nActivationPort = 0", "\"0\" is not a port, 135 holds"},
        {"[Listen]\nAddress = 127.0.0.2\nObjectPort = 65536", "\"65536\" is not a port, 49200 holds"},
        {"[Listen]\nAddress = 127.0.0.2\n[Clients]\nPingTimeout = 0", "\"0\" is not a time, 360 holds"},
        {"[Listen]\nAddress = 127.0.0.2\nObjectPort = 135", "it is the same as ActivationPort, any free port is taken"},
        {"\r\nloose\r\n[Listen]\r\nAddress = 127.0.0.2", "line 2: neither a [section] heading nor"},
        {"[Listen] Port = 5\rAddress = 127.0.0.2", "line 1: what stands behind the section heading is left out"},
        {"Address = 10.0.0.1\n[Listen]\nAddress = 127.0.0.2", "before the first section: lines outside the known"},
        {"[Listen\nAddress = 10.0.0.1\n[Listen]\nAddress = 127.0.0.2", "line 1: a section heading without ]"},
        {"[Listen]\nObjectPort = 1\n[listen]\nAddress = 127.0.0.2",
         "line 3: [listen] stands in line 1 already, both are read as one. Put"},
        {"[Listen]\nAddress = 127.0.0.2\naddress = 127.0.0.2", "[Listen] Address: it stands twice (lines 2 and 3). Le"},
        {"[Security]\nAllowNTLMv1 = yes\nAllowNTLMv1 = no\n[Listen]\nAddress = 127.0.0.2",
         "[Security] AllowNTLMv1: it stands twice (lines 2 and 3) with two values, its default holds. Leave"},
        {"[Accounts]\n*\\Ann = password:a\nann = password:a\n[Listen]\nAddress = 127.0.0.2",
         "[Accounts] ann: the account stands twice. Leave"},
        {"[Accounts]\nann = password:a ; the shift leader\n[Listen]\nAddress = 127.0.0.2",
         "[Accounts] ann: what stands behind the blank and the ; or # is taken as part of the password. Put"},
        {"[Accounts]\nann = nt:A4F49C406510bdcab6824ee7c30fd852 # x\n[Listen]\nAddress = 127.0.0.2",
         "[Accounts] ann: neit"},
    };
    for (const auto& c : cases) {
        const DcomSettings settings = parse(c.text);
        EXPECT_THAT(settings.problems, ElementsAre(HasSubstr(c.problem))) << c.text;
        EXPECT_THAT(settings.addresses, ElementsAre("127.0.0.2")) << c.text;
    }
    EXPECT_THAT(parse("[Listen]\nAddress = nowhere, , 1.2.3").addresses, ElementsAre("127.0.0.1"));
}

TEST(DcomSettings, ADamagedAccountIsLeftOutAndItsSecretNeverShown) {
    for (const char* line :
         {"joe = GEHEIM", "joe = nt:GEHEIM", "joe = nt:a4f49c406510bdcab6824ee7c30fd8",
          "joe = nt:a4f49c406510bdcab6824ee7c30fd85200", "joe = password:", "joe = nt:31d6cfe0d16ae931b73c59d7e0c089c0",
          "joe password:GEHEIM", "joe password:GEHEIM = x", "\\ = password:GEHEIM", "A\\B\\joe = password:GEHEIM",
          "A*\\joe = password:GEHEIM", "jo,e = password:GEHEIM", "= password:GEHEIM", "joe = password:GEHEIM\xFF",
          "password:GEHEIM", "joe = password:GEHEIM\nJOE = password:other"}) {
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

TEST(DcomSettings, AFileThatOthersReadIsReportedAndOneThatCannotBeReadGivesTheDefaults) {
    const std::filesystem::path folder = std::filesystem::path(::testing::TempDir()) / std::to_string(getpid());
    std::filesystem::create_directory(folder);
    const std::string path = folder / "dcom.conf";
    for (const mode_t mode : {0600U, 0400U, 0640U, 0604U}) {
        std::filesystem::remove(path);
        std::ofstream(path) << "[Accounts]\njoe = password:secret\n";
        chmod(path.c_str(), mode);
        const DcomSettings settings = readDcomSettings(path, "host");
        EXPECT_EQ(settings.problems.size(), (mode & 077) != 0 ? 1U : 0U) << mode;
        EXPECT_TRUE(settings.accounts.knowsUser("joe"));
    }
    std::ofstream(path) << "[Security]\nAllowAnonymous = yes\n;" + std::string(1024 * 1024, 'x');
    for (const std::string& bad : {path, folder.string(), std::string("/dev/zero")}) {
        const DcomSettings settings = readDcomSettings(bad, "host");
        EXPECT_EQ(protection(settings), "integrity");
        EXPECT_THAT(settings.problems, ElementsAre(StartsWith(bad + ": the file cannot be used ("))) << bad;
    }
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace quelm::dcom
