// What another local user can get from a running emulator: the admin
// endpoints answer only to the admin token, the request log never holds a
// whole credential, and the data directory is private.
#include <sys/stat.h>

#include <filesystem>

#include "tests/emulator/fixture.h"
#include "tests/support/test_support.h"

namespace znv::emulator::test {
namespace {

using nlohmann::json;

unsigned modeOf(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

EmulatorOptions withTokens(const std::string& dataDir) {
    EmulatorOptions options;
    options.dataDir = dataDir;
    options.token = "service-token-1";
    options.adminToken = "admin-token-2";
    return options;
}

TEST(EmulatorSecurity, AdminEndpointsAnswerOnlyToTheAdminToken) {
    Emulator emulator(withTokens(""));
    std::string error;
    ASSERT_TRUE(emulator.start(&error)) << error;
    EXPECT_EQ(emulator.adminToken(), "admin-token-2");
    const std::string root = emulator.rootURL();
    const std::string admin = "Authorization: Bearer admin-token-2";
    ASSERT_EQ(get(emulator.baseURL() + "files/x", {"Authorization: Bearer service-token-1"}).status,
              404);
    ASSERT_EQ(emulator.requestLog().size(), 1u);

    // Neither the service token, nor a near miss, nor the bare token opens
    // them, and a refused request changes nothing.
    for (const std::vector<std::string>& headers :
         std::vector<std::vector<std::string>>{{},
                                               {"Authorization: Bearer service-token-1"},
                                               {"Authorization: Bearer admin-token-"},
                                               {"Authorization: Bearer admin-token-22"},
                                               {"Authorization: admin-token-2"},
                                               {"Authorization: Basic admin-token-2"}}) {
        const std::string shown = headers.empty() ? "(none)" : headers[0];
        for (const char* method : {"GET", "DELETE"}) {
            auto answer = sendJSON(method, root + "_admin/requests", "", headers);
            EXPECT_EQ(answer.status, 401) << method << " " << shown;
            EXPECT_EQ(answer.header("www-authenticate"), "Bearer");
            EXPECT_EQ(answer.body.find("service-token"), std::string::npos) << answer.body;
        }
        EXPECT_EQ(sendJSON("POST", root + "_admin/faults", R"({"status": 500})", headers).status,
                  401)
            << shown;
        EXPECT_EQ(get(root + "_admin/faults", headers).status, 401) << shown;
        EXPECT_EQ(sendJSON("DELETE", root + "_admin/faults/1", "", headers).status, 401) << shown;
    }
    EXPECT_EQ(emulator.requestLog().size(), 1u);  // not cleared, and refusals are not logged

    // The admin token opens them (what they do is the fault tests' business).
    auto log = get(root + "_admin/requests", {admin});
    ASSERT_EQ(log.status, 200);
    EXPECT_EQ(log.json().size(), 1u);
    EXPECT_EQ(sendJSON("DELETE", root + "_admin/requests", "", {admin}).status, 200);
    EXPECT_EQ(emulator.requestLog(), json::array());
}

TEST(EmulatorSecurity, TheLogKeepsFourCharactersOfACredential) {
    Emulator emulator(withTokens(""));
    std::string error;
    ASSERT_TRUE(emulator.start(&error)) << error;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"Bearer service-token-1", "Bearer serv..."},
        {"Bearer abcd", "Bearer abcd"},
        {"Bearer abcde", "Bearer abcd..."},
        {"Bearer \xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9",
         "Bearer \xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9..."},
        {"Basic   dXNlcjpzZWNyZXQ=", "Basic dXNl..."},
        {"service-token-1", "serv..."},
        {"Bearer", "Bear..."},
    };
    for (const auto& [sent, kept] : cases) {
        emulator.clearRequestLog();
        get(emulator.baseURL() + "files/x", {"Authorization: " + sent});
        auto log = emulator.requestLog();
        ASSERT_EQ(log.size(), 1u);
        EXPECT_EQ(log[0]["headers"]["Authorization"], kept) << sent;
        // Over HTTP too, and nowhere else in the entry.
        auto served =
            get(emulator.rootURL() + "_admin/requests", {"Authorization: Bearer admin-token-2"});
        EXPECT_EQ(served.json(), log);
        if (kept != sent) {
            EXPECT_EQ(served.body.find(sent), std::string::npos) << served.body;
        }
    }
}

TEST(EmulatorSecurity, DataDirectoryIsPrivate) {
    // A directory the emulator creates (parents included) is 0700; in one
    // that exists, what it keeps there is made private.
    const std::string fresh = znv::test::makeTempDir("private") + "/a/b/data";
    const std::string existing = znv::test::makeTempDir("existing");
    ASSERT_TRUE(std::filesystem::create_directories(existing + "/files"));
    ::chmod((existing + "/files").c_str(), 0755);
    for (const std::string& dir : {fresh, existing}) {
        Emulator emulator(withTokens(dir));
        std::string error;
        ASSERT_TRUE(emulator.start(&error)) << error;
        if (dir == fresh) {
            EXPECT_EQ(modeOf(dir), 0700u);
        }
        EXPECT_EQ(modeOf(dir + "/files"), 0700u) << dir;
        EXPECT_EQ(modeOf(dir + "/tmp"), 0700u) << dir;
    }
    Emulator temporary(withTokens(""));
    std::string error;
    ASSERT_TRUE(temporary.start(&error)) << error;
    EXPECT_EQ(modeOf(temporary.dataDir()), 0700u);
}

}  // namespace
}  // namespace znv::emulator::test
