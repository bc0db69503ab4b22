// The session file: its text, its sealing, what counts as a session.
#include "controlplane/session.h"

#include "controlplane_fixture.h"
#include "engine/tunnel_state.h"

namespace {

const SessionRecord kRecord = {L"access", L"refresh", 1800000000};
constexpr char kText[] = R"({"access_token":"access","refresh_token":"refresh","expires_at":1800000000})";

bool LoadText(const std::string& text, SessionRecord& session) {
  sim::PutFile(kSessionFile, sim::Seal(text));
  return LoadSession(session);
}

void ExpectEmpty(const SessionRecord& session) {
  EXPECT_EQ(session.access_token, L"");
  EXPECT_EQ(session.refresh_token, L"");
  EXPECT_EQ(session.expires_at, 0);
}

TEST(SerializeSession, WritesOneLineInFixedOrder) {
  sim::Machine machine;
  EXPECT_EQ(SerializeSession(kRecord), kText);
  EXPECT_EQ(SerializeSession({L"", L"", -7}), R"({"access_token":"","refresh_token":"","expires_at":-7})");
}

TEST(SerializeSession, EscapesTheTokensAndKeepsUtf8) {
  sim::Machine machine;
  EXPECT_EQ(SerializeSession({L"a\"b\\c\n", L"\u00E9", 1}),
            "{\"access_token\":\"a\\\"b\\\\c\\n\",\"refresh_token\":\"\xC3\xA9\",\"expires_at\":1}");
}

TEST(SaveSession, SealsTheTextForThisMachineWithoutADescription) {
  sim::Machine machine;
  EXPECT_TRUE(SaveSession(kRecord));
  EXPECT_EQ(StoredSession(), kText);
  EXPECT_EQ(sim::SealDescription(sim::FileBytes(kSessionFile).value_or("")), L"");
  EXPECT_EQ(sim::CountCalls("CryptProtectData", "description=null flags=4"), 1U);
}

TEST(SaveSession, OverwritesInPlaceAndLeavesTheCachedTokenAlone) {
  sim::Machine machine;
  gCachedAccessToken = L"cached";
  StoreSession("a much longer token than the one that replaces it", 1000);
  EXPECT_TRUE(SaveSession(kRecord));
  EXPECT_EQ(StoredSession(), kText);
  EXPECT_EQ(sim::CountCalls("MoveFileExW"), 0U);
  EXPECT_EQ(gCachedAccessToken, L"cached");
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(SaveSession, FailsWithoutSealFolderOrFile) {
  sim::Machine machine;
  sim::Fail({.operation = "CryptProtectData"});
  EXPECT_FALSE(SaveSession(kRecord));
  EXPECT_FALSE(sim::FileExists(kSessionFile));
  sim::Fail({.operation = "CreateDirectoryW", .code = 5});
  EXPECT_FALSE(SaveSession(kRecord));
  EXPECT_FALSE(sim::FileExists(kSessionFile));
  EXPECT_TRUE(SaveSession(kRecord));
  sim::HoldFile(kSessionFile);
  EXPECT_FALSE(SaveSession(kRecord));
  sim::ReleaseFile(kSessionFile);
  EXPECT_TRUE(SaveSession(kRecord));
}

TEST(LoadSession, ReadsWhatWasSaved) {
  sim::Machine machine;
  ASSERT_TRUE(SaveSession({L"acc\u00E9ss", L"refresh", 42}));
  SessionRecord session;
  EXPECT_TRUE(LoadSession(session));
  EXPECT_EQ(session.access_token, L"acc\u00E9ss");
  EXPECT_EQ(session.refresh_token, L"refresh");
  EXPECT_EQ(session.expires_at, 42);
}

TEST(LoadSession, AnExpiredSessionIsASession) {
  sim::Machine machine;
  SessionRecord session;
  EXPECT_TRUE(LoadText(R"({"access_token":"a","refresh_token":"r","expires_at":1})", session));
}

TEST(LoadSession, TakesTokenInPlaceOfAccessToken) {
  sim::Machine machine;
  SessionRecord session;
  EXPECT_TRUE(LoadText(R"({"token":"t","refresh_token":"r","expires_at":5})", session));
  EXPECT_EQ(session.access_token, L"t");
  EXPECT_TRUE(LoadText(R"({"token":"t","access_token":"a","refresh_token":"r","expires_at":5})", session));
  EXPECT_EQ(session.access_token, L"a");
  EXPECT_FALSE(LoadText(R"({"token":"t","access_token":"","refresh_token":"r","expires_at":5})", session));
}

TEST(LoadSession, TrimsTheTokens) {
  sim::Machine machine;
  SessionRecord session;
  EXPECT_TRUE(LoadText("{\"access_token\":\" a\t\",\"refresh_token\":\"\r\nr \",\"expires_at\":5}", session));
  EXPECT_EQ(session.access_token, L"a");
  EXPECT_EQ(session.refresh_token, L"r");
}

TEST(LoadSession, AMissingFieldLeavesTheRecordEmpty) {
  for (const char* text :
       {R"({"refresh_token":"r","expires_at":5})", R"({"access_token":"a","expires_at":5})",
        R"({"access_token":"a","refresh_token":"r"})",
        R"({"access_token":"a","refresh_token":"r","expires_at":"123"})", "not json"}) {
    SCOPED_TRACE(text);
    sim::Machine machine;
    SessionRecord session = {L"stale", L"stale", 99};
    EXPECT_FALSE(LoadText(text, session));
    ExpectEmpty(session);
  }
}

TEST(LoadSession, KeepsTheFieldsOfASessionThatIsNone) {
  const struct {
    const char* text;
    SessionRecord record;
  } cases[] = {{R"({"access_token":"a","refresh_token":"","expires_at":5})", {L"a", L"", 5}},
               {R"({"access_token":" ","refresh_token":"r","expires_at":5})", {L"", L"r", 5}},
               {R"({"access_token":"a","refresh_token":"r","expires_at":0})", {L"a", L"r", 0}},
               {R"({"access_token":"a","refresh_token":"r","expires_at":-5})", {L"a", L"r", -5}},
               {"{\"access_token\":\"\xC3\",\"refresh_token\":\"r\",\"expires_at\":5}", {L"", L"r", 5}}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.text);
    sim::Machine machine;
    SessionRecord session;
    EXPECT_FALSE(LoadText(one.text, session));
    EXPECT_EQ(session.access_token, one.record.access_token);
    EXPECT_EQ(session.refresh_token, one.record.refresh_token);
    EXPECT_EQ(session.expires_at, one.record.expires_at);
  }
}

// The reader does not undo the quoting; that is wanted.
TEST(LoadSession, DoesNotGiveBackABackslashOrAQuote) {
  sim::Machine machine;
  SessionRecord session;
  ASSERT_TRUE(SaveSession({L"a\\b", L"c\"d", 5}));
  EXPECT_TRUE(LoadSession(session));
  EXPECT_EQ(session.access_token, L"a\\\\b");
  EXPECT_EQ(session.refresh_token, L"c\\");
}

TEST(LoadSession, AFileThatDoesNotOpenIsNoSessionAndStays) {
  for (const bool empty : {true, false}) {
    sim::Machine machine;
    const std::string bytes = empty ? "" : sim::SealElsewhere(kText);
    sim::PutFile(kSessionFile, bytes);
    SessionRecord session = {L"stale", L"stale", 99};
    EXPECT_FALSE(LoadSession(session));
    ExpectEmpty(session);
    EXPECT_EQ(sim::FileBytes(kSessionFile), bytes);
    EXPECT_EQ(sim::LogLines(), Lines());
  }
}

TEST(LoadSession, WithoutAFileThereIsNoSession) {
  sim::Machine machine;
  SessionRecord session = {L"stale", L"stale", 99};
  EXPECT_FALSE(LoadSession(session));
  ExpectEmpty(session);
}

TEST(LoadSession, AFileTornByACrashIsNoSession) {
  sim::Machine machine;
  ASSERT_TRUE(SaveSession(kRecord));
  const std::string blob = sim::FileBytes(kSessionFile).value_or("");
  sim::PutFile(kSessionFile, blob.substr(0, blob.size() / 2));
  SessionRecord session;
  EXPECT_FALSE(LoadSession(session));
}

}  // namespace
