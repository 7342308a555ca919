// Index upkeep after a move, through the real mailbox store in a private
// QUILLNET_ROOT: which party a record shows after each kind of move, the
// per-domain switch, results and the failure line, four processes moving
// messages of one mailbox pair at once, and the command-line tool.

#include <cstring>
#include <set>

#include "mbx_fixture.h"
#include "msg_utility_internal.h"
#include "tarnmail.h"
#include "tarnmail/msgutil.h"

namespace {

using tarntest::list_index;

constexpr uint32_t kOtherFlag = 0x100;  // a flag of someone else's that must survive

std::string message(const std::string& id, const std::string& headers) {
  return "Message-ID: <" + id + ">\r\n" + headers + "Subject: about " + id + "\r\n\r\nbody of " + id + "\r\n";
}

class IndexUpkeep : public tarntest::MbxRoot {
 protected:
  void SetUp() override {
    MbxRoot::SetUp();
    for (const char* box : {"INBOX", "@.sent", "@.draft", "Trash"}) MBX_Close(MBX_Open("joe", box, MBX_MODE_CREATE));
  }

  // Stores a message with a record that shows a placeholder party.
  void put(const char* box, const std::string& id, const std::string& text, uint32_t flags, uint8_t charset = 0) {
    MBX_Idx r;
    std::memset(&r, 0, sizeof r);
    std::strcpy(r.szSenderEmail, "placeholder");
    std::strcpy(r.szSenderNick, "ph");
    std::strcpy(r.szSubject, ("about " + id).c_str());
    r.nFlags = flags;
    r.nCharset = charset;
    r.tCreateTime = 12345;
    MBX* m = MBX_Open("joe", box, MBX_MODE_UPDATE);
    ASSERT_NE(nullptr, m);
    ASSERT_EQ(0, MBX_MsgAppend(m, id.c_str(), text.data(), text.size(), &r));
    MBX_Close(m);
  }
  static void move(const char* src, const char* dst, const std::string& id) {
    ASSERT_EQ(0, MBX_MsgMove("joe", src, dst, id.c_str()));
    MSGU_MoveCheck("joe", src, dst, id.c_str());
  }
  // The party a record shows: "flags|address|nickname".
  static std::string shown(const char* box, const std::string& id) {
    for (const MBX_Idx& r : list_index("joe", box))
      if (id == r.szMsgID)
        return std::to_string(r.nFlags) + "|" + r.szSenderEmail + "|" + r.szSenderNick;
    return "(absent)";
  }
  std::string log() const { return slurp(root_ + "/log/error.log"); }
};

TEST(MoveKinds, RecipientMailboxNames) {
  for (const char* yes : {"@.sent", "@.SENT", "@.sent.2019", "@.draft", "@.Drafts"}) EXPECT_EQ(1, s_IsRcpt(yes)) << yes;
  for (const char* no : {"@.sen", "@.drafx", " @.sent", "INBOX", "sent", "", static_cast<const char*>(nullptr)})
    EXPECT_EQ(0, s_IsRcpt(no)) << (no != nullptr ? no : "NULL");
}

TEST_F(IndexUpkeep, MovesRewriteTheShownParty) {
  const std::string both = "From: \"Joe Doe\" <joe@example.com>\r\nTo: Ann <ann@example.org>, bob@example.net\r\n"
                           "Cc: carl@example.com\r\n";
  // To an ordinary mailbox: the sender, the recipient flag cleared.
  put("@.sent", "s1@x", message("s1@x", both), MBX_IDX_RCPT | kOtherFlag);
  move("@.sent", "INBOX", "s1@x");
  EXPECT_EQ("256|joe@example.com|Joe Doe", shown("INBOX", "s1@x"));
  // To a recipient mailbox: the first To recipient (the name keeps the
  // blank before "<", as the recipient list reads it), the flag set.
  put("INBOX", "i1@x", message("i1@x", both), kOtherFlag);
  move("INBOX", "@.draft", "i1@x");
  EXPECT_EQ("260|ann@example.org|Ann ", shown("@.draft", "i1@x"));
  // Between mailboxes of one kind nothing is rewritten.
  move("@.draft", "@.sent", "i1@x");
  EXPECT_EQ("260|ann@example.org|Ann ", shown("@.sent", "i1@x"));
  move("INBOX", "Trash", "s1@x");
  EXPECT_EQ("256|joe@example.com|Joe Doe", shown("Trash", "s1@x"));
  put("@.sent", "s2@x", message("s2@x", both), 0);
  move("@.sent", "@.draft", "s2@x");
  EXPECT_EQ("0|placeholder|ph", shown("@.draft", "s2@x"));

  // Without To the first Cc recipient; without both, nothing; a To that
  // names no one is shown as it stands.
  put("INBOX", "c1@x", message("c1@x", "From: a@b\r\nCc: \"Carl C\" <carl@example.com>, dave@x\r\n"), 0);
  put("INBOX", "n1@x", message("n1@x", "From: a@b\r\n"), 0);
  put("INBOX", "k1@x", message("k1@x", "From: a@b\r\nTo: ,\r\n"), 0);
  for (const char* id : {"c1@x", "n1@x", "k1@x"}) move("INBOX", "@.draft", id);
  EXPECT_EQ("4|carl@example.com|Carl C", shown("@.draft", "c1@x"));
  EXPECT_EQ("4||", shown("@.draft", "n1@x"));
  EXPECT_EQ("4|,|", shown("@.draft", "k1@x"));

  // Cut to the fields without splitting a character of the record's charset
  // (UTF-8 here: eleven two-byte letters of the thirteen fit in 23 bytes).
  const std::string e13 = "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9";
  put("@.sent", "u1@x", message("u1@x", "From: \"" + e13 + "\" <a-rather-long-address-of-somebody@example.com>\r\n"),
      MBX_IDX_RCPT, MIME_CS_UTF8);
  move("@.sent", "INBOX", "u1@x");
  EXPECT_EQ("0|a-rather-long-address-of-somebody@examp|" + e13.substr(0, 22), shown("INBOX", "u1@x"));

  // The rest of the record stays as it was; no failure was logged.
  const std::vector<MBX_Idx> inbox = list_index("joe", "INBOX");
  ASSERT_EQ(1u, inbox.size());
  EXPECT_STREQ("about u1@x", inbox[0].szSubject);
  EXPECT_EQ(12345, inbox[0].tCreateTime);
  EXPECT_EQ(MIME_CS_UTF8, inbox[0].nCharset);
  EXPECT_FALSE(std::filesystem::exists(root_ + "/log/error.log"));
}

TEST_F(IndexUpkeep, SwitchedOffPerDomain) {
  const std::string text = message("d1@x", "From: Joe <joe@example.com>\r\nTo: ann@example.org\r\n");
  put("@.sent", "d1@x", text, MBX_IDX_RCPT);
  // "joe" is joe@example.com through the configured domain.
  write_conf("[Global]\nMYDOMAIN=example.com\n[DS@example.com]\nMAIL_MOVE_INDEX_UPDATE_DISABLE=1\n");
  move("@.sent", "INBOX", "d1@x");
  EXPECT_EQ("4|placeholder|ph", shown("INBOX", "d1@x"));
  write_conf("[Global]\nMYDOMAIN=example.com\n[DS]\nMAIL_MOVE_INDEX_UPDATE_DISABLE=2\n");
  move("INBOX", "@.sent", "d1@x");
  move("@.sent", "INBOX", "d1@x");
  EXPECT_EQ("4|placeholder|ph", shown("INBOX", "d1@x"));
  // Another domain's switch, or the domain's own 0 over a global 1, leaves
  // the upkeep on.
  write_conf("[Global]\nMYDOMAIN=example.com\n[DS]\nMAIL_MOVE_INDEX_UPDATE_DISABLE=1\n"
             "[DS@example.com]\nMAIL_MOVE_INDEX_UPDATE_DISABLE=0\n[DS@example.org]\nMAIL_MOVE_INDEX_UPDATE_DISABLE=1\n");
  move("INBOX", "@.sent", "d1@x");
  EXPECT_EQ("4|ann@example.org|", shown("@.sent", "d1@x"));
  move("@.sent", "INBOX", "d1@x");
  EXPECT_EQ("0|joe@example.com|Joe", shown("INBOX", "d1@x"));
}

TEST_F(IndexUpkeep, ResultsAndTheFailureLine) {
  put("INBOX", "r1@x", message("r1@x", "From: Joe <joe@example.com>\r\nTo: ann@example.org\r\n"), 0);
  EXPECT_EQ(-2, MSGU_IdxUpd(nullptr, "INBOX", "r1@x", 0));
  EXPECT_EQ(-2, MSGU_IdxUpd("joe", "INBOX", "", 0));
  EXPECT_EQ(0, MSGU_IdxUpd("joe", "", "r1@x", 0));
  EXPECT_EQ("0|placeholder|ph", shown("INBOX", "r1@x"));
  EXPECT_EQ(-1, MSGU_IdxUpd("joe", "INBOX", "gone@x", 0));
  EXPECT_EQ(-1, MSGU_IdxUpd("joe", "Nowhere", "r1@x", 0));
  EXPECT_EQ(0, MSGU_IdxUpd("joe", "INBOX", "r1@x", MSGU_IDX_RCPT));  // the flag the caller asks for, whatever the box
  EXPECT_EQ("4|ann@example.org|", shown("INBOX", "r1@x"));

  // Missing arguments: nothing done, nothing logged.
  MSGU_MoveCheck("joe", "@.sent", "INBOX", "");
  MSGU_MoveCheck("joe", nullptr, "INBOX", "r1@x");
  EXPECT_EQ("4|ann@example.org|", shown("INBOX", "r1@x"));
  EXPECT_FALSE(std::filesystem::exists(root_ + "/log/error.log"));

  // A failed update is logged with the caller's own names; the move stands.
  MSGU_MoveCheck("Joe", "@.sent", "INBOX", "gone@x");
  MSGU_MoveCheck("joe", "INBOX", "@.Draft", "r1@x");
  EXPECT_EQ("MSG_IdxUpd failure(-1),(Joe,src:@.sent,dst:INBOX,gone@x).\n"
            "MSG_IdxUpd failure(-1),(joe,src:INBOX,dst:@.Draft,r1@x).\n",
            log());
}

TEST_F(IndexUpkeep, FourProcessesMovingOnePair) {
  setenv("TARN_MBX_NOFSYNC", "1", 1);
  constexpr int kMessages = 16, kProcs = 4, kMoves = 1000;
  auto id_of = [](int k) { return "id" + std::to_string(k) + "@x"; };
  auto text_of = [&](int k) {
    const std::string n = std::to_string(k);
    return message(id_of(k), "From: Sender " + n + " <s" + n + "@example.com>\r\nTo: \"Rcpt " + n + "\" <r" + n +
                                 "@example.org>\r\n");
  };
  for (int k = 0; k < kMessages; ++k) {
    put("INBOX", id_of(k), text_of(k), 0);
    ASSERT_EQ(0, MSGU_IdxUpd("joe", "INBOX", id_of(k).c_str(), 0));
  }
  const std::string counts = root_ + "/moves";  // each child's number of moves done
  in_children(kProcs, [&](int p) {
    srandom(static_cast<unsigned>(p) + 1);
    int done = 0;
    for (int i = 0; i < kMoves; ++i) {
      const std::string id = id_of(static_cast<int>(random() % kMessages));
      const char* src = "INBOX";
      const char* dst = "@.sent";
      int rc = MBX_MsgMove("joe", src, dst, id.c_str());
      if (rc == MBX_ENOTFOUND) {
        std::swap(src, dst);
        rc = MBX_MsgMove("joe", src, dst, id.c_str());
      }
      if (rc == 0) {
        MSGU_MoveCheck("joe", src, dst, id.c_str());
        ++done;
      } else if (rc != MBX_ENOTFOUND) {
        return 3;
      }
    }
    LOG_FileLine(counts.c_str(), "%d", done);
    return 0;
  });

  // Every message is in exactly one mailbox, with a whole record that shows
  // the party its mailbox calls for.
  std::set<std::string> ids;
  for (const char* box : {"INBOX", "@.sent"}) {
    const bool rcpt = s_IsRcpt(box) != 0;
    for (const MBX_Idx& r : list_index("joe", box)) {
      EXPECT_TRUE(ids.insert(r.szMsgID).second) << r.szMsgID << " listed twice";
      const int k = std::atoi(r.szMsgID + 2);
      const std::string n = std::to_string(k), text = text_of(k);
      EXPECT_EQ(id_of(k), r.szMsgID);
      EXPECT_EQ(rcpt ? MBX_IDX_RCPT : 0u, r.nFlags) << r.szMsgID;
      EXPECT_EQ(rcpt ? "r" + n + "@example.org" : "s" + n + "@example.com", r.szSenderEmail);
      EXPECT_EQ((rcpt ? "Rcpt " : "Sender ") + n, r.szSenderNick);
      EXPECT_EQ("about " + id_of(k), r.szSubject);
      EXPECT_EQ(text.size(), r.nMailSize);
      char* content = nullptr;
      size_t size = 0;
      ASSERT_EQ(0, MSG_Read("joe", box, r.szMsgID, &content, &size, nullptr));
      EXPECT_EQ(text, std::string(content, size));
      free(content);
    }
  }
  EXPECT_EQ(static_cast<size_t>(kMessages), ids.size());

  // Races (a message moved on before its record was refreshed) are logged
  // as whole lines; the moves themselves mostly succeed.
  std::istringstream lines(std::filesystem::exists(root_ + "/log/error.log") ? log() : "");
  for (std::string line; std::getline(lines, line);) {
    int rc = 0, k = -1;
    char src[16] = "", dst[16] = "";
    sscanf(line.c_str(), "MSG_IdxUpd failure(%d),(joe,src:%15[^,],dst:%15[^,],id%d@x).", &rc, src, dst, &k);
    const std::set<std::string> boxes = {"INBOX", "@.sent"};
    EXPECT_TRUE((rc == -1 || rc == -3) && boxes.count(src) && boxes.count(dst) && std::string(src) != dst) << line;
    EXPECT_EQ("MSG_IdxUpd failure(" + std::to_string(rc) + "),(joe,src:" + src + ",dst:" + dst + "," + id_of(k) + ").",
              line);
  }
  std::istringstream done(slurp(counts));
  int total = 0;
  for (int n = 0; done >> n;) total += n;
  EXPECT_GT(total, kProcs * kMoves / 2);
}

TEST_F(IndexUpkeep, CommandLineTool) {
  if (access(TARN_TOOL, X_OK) != 0) GTEST_SKIP() << "tool not built";
  const std::string file = root_ + "/m.eml";
  std::ofstream(file) << message("t1@x", "From: \"Joe\" <joe@example.com>\r\nTo: \"Ann\" <ann@example.org>\r\n");
  auto run = [&](const std::string& args) {
    std::string out;
    FILE* p = popen((std::string(TARN_TOOL) + " mbox " + args + " 2>&1").c_str(), "r");
    char buf[512];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    return std::to_string(WEXITSTATUS(pclose(p))) + ":" + out;
  };
  const std::string size = std::to_string(std::filesystem::file_size(file));
  EXPECT_EQ("0:", run("create joe Box"));
  EXPECT_EQ("0:t1@x\n", run("append joe Box " + file));
  EXPECT_EQ("1:tarnmail: t1@x: message already there\n", run("append joe Box " + file));
  EXPECT_EQ("0:t1@x\t0\t" + size + "\t", run("list joe Box").substr(0, 10 + size.size()));
  EXPECT_EQ("0:", run("move joe Box @.draft t1@x"));
  const std::string listed = run("list joe @.draft");
  EXPECT_NE(std::string::npos, listed.find("\t4\t" + size + "\t")) << listed;
  EXPECT_NE(std::string::npos, listed.find("\tann@example.org\tAnn\tabout t1@x\n")) << listed;
  EXPECT_EQ("1:tarnmail: t1@x: no such message\n", run("move joe Box @.draft t1@x"));
}

}  // namespace
