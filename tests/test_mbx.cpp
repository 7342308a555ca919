// Mailbox store, configuration files, user ids and log lines: what lands on
// disk, the results of every call, and what concurrent and killed writers
// leave behind.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include "mbx_fixture.h"

namespace {

using tarntest::list_index;

MBX_Idx record_for(const char* id, uint32_t gen) {
  MBX_Idx r;
  std::memset(&r, 0, sizeof r);
  std::strcpy(r.szMsgID, id);
  const char c = static_cast<char>('a' + gen % 26);
  std::memset(r.szSubject, c, sizeof r.szSubject - 1);
  std::memset(r.szSenderEmail, c, sizeof r.szSenderEmail - 1);
  std::memset(r.szSenderNick, c, sizeof r.szSenderNick - 1);
  r.nIdx = gen;
  r.nFlags = gen;
  r.tCreateTime = 1000 + gen;
  return r;
}

// A record written whole by record_for: every field from the same call.
::testing::AssertionResult whole(const MBX_Idx& r) {
  const std::string c(1, static_cast<char>('a' + r.nIdx % 26));
  auto uniform = [&](const char* s, size_t n) { return std::string(s) == std::string(n - 1, c[0]); };
  if (uniform(r.szSubject, sizeof r.szSubject) && uniform(r.szSenderEmail, sizeof r.szSenderEmail) &&
      uniform(r.szSenderNick, sizeof r.szSenderNick) && r.nFlags == r.nIdx && r.tCreateTime == 1000 + r.nIdx)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "torn record " << r.szMsgID << " gen " << r.nIdx;
}

int append(const char* user, const char* mbox, const char* id, const std::string& body,
           const MBX_Idx* rec = nullptr) {
  MBX* m = MBX_Open(user, mbox, MBX_MODE_CREATE);
  if (m == nullptr) return -100;
  const int rc = MBX_MsgAppend(m, id, body.data(), body.size(), rec);
  MBX_Close(m);
  return rc;
}

int update(const char* user, const char* mbox, const char* id, const MBX_Idx& rec) {
  MBX* m = MBX_Open(user, mbox, MBX_MODE_UPDATE);
  if (m == nullptr) return -100;
  const int rc = MBX_IdxUpd(m, id, &rec);
  MBX_Close(m);
  return rc;
}

using Mailbox = tarntest::MbxRoot;

TEST_F(Mailbox, NamesOnDiskAndRecordBytes) {
  // User ids are normalised with the configured domain; every name becomes
  // one safe component; distinct ids never share a file.
  MBX_Idx tmpl;
  std::memset(&tmpl, 0xAB, sizeof tmpl);  // padding and stray bytes must not reach the disk
  std::memset(tmpl.szSubject, 0, sizeof tmpl.szSubject);
  std::strcpy(tmpl.szSubject, "hi");
  tmpl.tCreateTime = 42;
  ASSERT_EQ(0, append(" Joe ", "../In box", ".lock", "x", &tmpl));
  ASSERT_EQ(0, append("JOE@EXAMPLE.COM", "../In box", "a/b c", "yz"));
  ASSERT_EQ(0, append("joe", "../In box", "a%2Fb", ""));
  const std::string dir = mbox_dir("joe@example.com", "%2E.%2FIn%20box");
  EXPECT_EQ("x", slurp(dir + "/%2Elock"));
  EXPECT_EQ("yz", slurp(dir + "/a%2Fb%20c"));
  EXPECT_TRUE(std::filesystem::exists(dir + "/a%252Fb"));

  const std::string index = slurp(dir + "/.index");
  ASSERT_EQ(3 * sizeof(MBX_Idx), index.size());
  MBX_Idx first;
  std::memcpy(&first, index.data(), sizeof first);
  EXPECT_EQ(std::string(".lock") + std::string(75, '\0'), std::string(first.szMsgID, sizeof first.szMsgID));
  EXPECT_EQ(1u, first.nMailSize);
  EXPECT_EQ(42, first.tCreateTime);
  EXPECT_STREQ("hi", first.szSubject);
  EXPECT_EQ('\0', first.szSenderEmail[sizeof first.szSenderEmail - 1]);  // stray text terminated
  EXPECT_EQ(std::string(4, '\0'), index.substr(300, 4));                  // padding after nIdx
  MBX_Idx second;
  std::memcpy(&second, index.data() + sizeof second, sizeof second);
  EXPECT_STREQ("a/b c", second.szMsgID);
  EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(second.tCreateTime), 5.0);

  // Ids must fit the record; names must be usable.
  const std::string id79(79, 'i'), id80(80, 'i');
  EXPECT_EQ(0, append("joe", "box", id79.c_str(), "m"));
  EXPECT_EQ(-2, append("joe", "box", id80.c_str(), "m"));
  EXPECT_EQ(-2, append("joe", "box", "", "m"));
  EXPECT_EQ(nullptr, MBX_Open("joe", "", MBX_MODE_CREATE));
}

TEST_F(Mailbox, ReadUpdateListAndMove) {
  errno = 0;
  EXPECT_EQ(nullptr, MBX_Open("joe", "INBOX", MBX_MODE_READ));
  EXPECT_EQ(ENOENT, errno);
  const std::string body("From: a@b\r\n\r\nwith\0nul", 20);
  ASSERT_EQ(0, append("joe", "INBOX", "m1", body, nullptr));
  EXPECT_EQ(MBX_EEXIST, append("joe", "INBOX", "m1", "again"));
  ASSERT_EQ(0, append("joe", "Trash", "other", "o"));

  char* content = reinterpret_cast<char*>(1);
  size_t size = 7;
  MBX_Idx rec;
  ASSERT_EQ(0, MSG_Read("joe", "INBOX", "m1", &content, &size, &rec));
  EXPECT_EQ(body, std::string(content, size));
  EXPECT_EQ('\0', content[size]);
  EXPECT_STREQ("m1", rec.szMsgID);
  free(content);
  EXPECT_EQ(MBX_ENOTFOUND, MSG_Read("joe", "INBOX", "m2", &content, &size, nullptr));
  EXPECT_EQ(nullptr, content);
  EXPECT_EQ(MBX_ENOTFOUND, MSG_Read("joe", "Nowhere", "m1", &content, &size, nullptr));

  // An update replaces the whole record but keeps it the message's own.
  MBX_Idx upd = record_for("not-m1", 3);
  ASSERT_EQ(0, update("joe", "INBOX", "m1", upd));
  std::vector<MBX_Idx> inbox = list_index("joe", "INBOX");
  ASSERT_EQ(1u, inbox.size());
  EXPECT_STREQ("m1", inbox[0].szMsgID);
  EXPECT_EQ(3u, inbox[0].nIdx);
  EXPECT_STREQ(upd.szSubject, inbox[0].szSubject);
  EXPECT_EQ(MBX_ENOTFOUND, update("joe", "INBOX", "m9", upd));
  MBX* ro = MBX_Open("joe", "INBOX", MBX_MODE_READ);
  ASSERT_NE(nullptr, ro);
  errno = 0;
  EXPECT_EQ(-1, MBX_IdxUpd(ro, "m1", &upd));
  EXPECT_EQ(EBADF, errno);
  MBX_Close(ro);

  // Moves carry the file and the record; the source lets go of both.
  ASSERT_EQ(0, MBX_MsgMove("joe", "INBOX", "Trash", "m1"));
  EXPECT_TRUE(list_index("joe", "INBOX").empty());
  std::vector<MBX_Idx> trash = list_index("joe", "Trash");
  ASSERT_EQ(2u, trash.size());
  EXPECT_EQ(0, std::memcmp(&inbox[0], &trash[1], 300));
  EXPECT_FALSE(std::filesystem::exists(mbox_dir("joe@example.com", "INBOX") + "/m1"));
  ASSERT_EQ(0, MSG_Read("joe", "Trash", "m1", &content, &size, nullptr));
  EXPECT_EQ(body, std::string(content, size));
  free(content);
  EXPECT_EQ(MBX_ENOTFOUND, MBX_MsgMove("joe", "INBOX", "Trash", "m1"));
  EXPECT_EQ(-2, MBX_MsgMove("joe", "Trash", "Trash", "m1"));
  ASSERT_EQ(0, append("joe", "INBOX", "other", "another message"));
  EXPECT_EQ(MBX_EEXIST, MBX_MsgMove("joe", "Trash", "INBOX", "other"));

  // What a move cut short leaves (the file linked into the destination, the
  // record in both indexes) is completed by the next move; a stray file
  // without a record is replaced.
  const std::string tdir = mbox_dir("joe@example.com", "Trash"), idir = mbox_dir("joe@example.com", "INBOX");
  ASSERT_EQ(0, link((tdir + "/m1").c_str(), (idir + "/m1").c_str()));
  std::filesystem::copy_file(tdir + "/.index", idir + "/.index", std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(0, MBX_MsgMove("joe", "Trash", "INBOX", "m1"));
  EXPECT_EQ(1u, list_index("joe", "Trash").size());
  EXPECT_FALSE(std::filesystem::exists(tdir + "/m1"));
  std::ofstream(tdir + "/m1") << "stale";
  EXPECT_EQ(0, MBX_MsgMove("joe", "INBOX", "Trash", "m1"));
  EXPECT_EQ(body, slurp(tdir + "/m1"));

}

TEST_F(Mailbox, ConcurrentWritersLoseNothing) {
  setenv("TARN_MBX_NOFSYNC", "1", 1);
  MBX_Close(MBX_Open("joe", "INBOX", MBX_MODE_CREATE));
  constexpr int kProcs = 4, kAppends = 100, kOwned = 10, kRounds = 40;
  in_children(kProcs, [](int p) {
    char id[32];
    for (int k = 0; k < kAppends; ++k) {
      snprintf(id, sizeof id, "p%d-%d", p, k);
      const MBX_Idx r = record_for(id, 0);
      if (append("joe", "INBOX", id, std::string(id), &r) != 0) return 1;
    }
    // Each process rewrites its own records while the others rewrite theirs:
    // an update lost to another process's stale copy would show an old
    // generation at the end.
    for (uint32_t gen = 1; gen <= kRounds; ++gen)
      for (int k = 0; k < kOwned; ++k) {
        snprintf(id, sizeof id, "p%d-%d", p, k);
        if (update("joe", "INBOX", id, record_for(id, gen)) != 0) return 2;
      }
    return 0;
  });
  const std::vector<MBX_Idx> recs = list_index("joe", "INBOX");
  ASSERT_EQ(static_cast<size_t>(kProcs * kAppends), recs.size());
  std::set<std::string> ids;
  for (const MBX_Idx& r : recs) {
    ids.insert(r.szMsgID);
    EXPECT_TRUE(whole(r));
    const int k = std::atoi(std::strchr(r.szMsgID, '-') + 1);
    EXPECT_EQ(k < kOwned ? kRounds : 0u, r.nIdx) << r.szMsgID;
    EXPECT_EQ(k < kOwned ? 0u : std::strlen(r.szMsgID), r.nMailSize);  // updates carry size 0
  }
  EXPECT_EQ(recs.size(), ids.size());
}

TEST_F(Mailbox, KilledWriterLeavesWholeIndexes) {
  // A writer killed at a random point of its work, 200 times: the indexes
  // it was rewriting are always whole, no message is lost by a move, and the
  // next writer is never blocked by the dead one's lock.
  setenv("TARN_MBX_NOFSYNC", "1", 1);
  constexpr int kUpdated = 8, kMoved = 16;
  auto id_of = [](const char* prefix, int k) { return std::string(prefix) + std::to_string(k); };
  for (int k = 0; k < kUpdated; ++k) {
    const MBX_Idx r = record_for(id_of("u", k).c_str(), 0);
    ASSERT_EQ(0, append("joe", "A", r.szMsgID, "u", &r));
  }
  for (int k = 0; k < kMoved; ++k) ASSERT_EQ(0, append("joe", k % 2 ? "B" : "C", id_of("m", k).c_str(), "m"));

  srandom(7);
  int kills_mid_work = 0;
  for (int round = 0; round < 200; ++round) {
    const unsigned seed = static_cast<unsigned>(random());
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      srandom(seed);
      for (uint32_t gen = seed % 1000 + 1;; ++gen) {
        const std::string u = id_of("u", static_cast<int>(gen % kUpdated));
        update("joe", "A", u.c_str(), record_for(u.c_str(), gen));
        const std::string m = id_of("m", static_cast<int>(random() % kMoved));
        if (MBX_MsgMove("joe", "B", "C", m.c_str()) != 0) MBX_MsgMove("joe", "C", "B", m.c_str());
      }
    }
    usleep(static_cast<useconds_t>(random() % 4000));
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    kills_mid_work += WIFSIGNALED(status);

    const std::string adir = mbox_dir("joe@example.com", "A");
    ASSERT_EQ(kUpdated * sizeof(MBX_Idx), std::filesystem::file_size(adir + "/.index")) << "round " << round;
    std::set<std::string> updated;
    for (const MBX_Idx& r : list_index("joe", "A")) {
      ASSERT_TRUE(whole(r)) << "round " << round;
      updated.insert(r.szMsgID);
    }
    ASSERT_EQ(static_cast<size_t>(kUpdated), updated.size());

    std::map<std::string, int> seen;
    for (const char* box : {"B", "C"}) {
      const std::string dir = mbox_dir("joe@example.com", box);
      ASSERT_EQ(0u, std::filesystem::file_size(dir + "/.index") % sizeof(MBX_Idx));
      for (const MBX_Idx& r : list_index("joe", box)) {
        ++seen[r.szMsgID];
        ASSERT_EQ("m", slurp(dir + "/" + r.szMsgID)) << "round " << round << " " << box << " " << r.szMsgID;
      }
    }
    ASSERT_EQ(static_cast<size_t>(kMoved), seen.size()) << "a moved message went missing, round " << round;
  }
  EXPECT_EQ(200, kills_mid_work);
}

using Config = tarntest::MbxRoot;

TEST_F(Config, SectionsDomainsAndValues) {
  write_conf(
      "# comment\n"
      "[Global]\n MYDOMAIN = Example.com \nSENT_MAIL_ENCODING=big5\n"
      "[DS]\nLIMIT = 10\nNEG=-5\nBAD = 12abc\nBIG = 99999999999\nNAME = \"quoted value\"\n"
      "; another comment\n[ds@EXAMPLE.org]\nlimit=20\n[DS@example.net]\nOTHER=1\n[Else]\nLIMIT=30\n"
      "[DS]\nLATE=1\nLATE=2\n");
  EXPECT_STREQ("Example.com", GINI.sMYDOMAIN);
  EXPECT_STREQ("big5", GINI.sSENTMAILENC);
  EXPECT_EQ(10, MCF_S_IntGet("tarnapp.conf", "DS", "LIMIT", "example.com", 0, 0, 100));
  EXPECT_EQ(20, MCF_S_IntGet("tarnapp.conf", "DS", "LIMIT", "example.ORG", 0, 0, 100));
  EXPECT_EQ(10, MCF_S_IntGet("tarnapp.conf", "DS", "LIMIT", "example.net", 0, 0, 100));  // falls back
  EXPECT_EQ(30, MCF_S_IntGet("tarnapp.conf", "Else", "limit", nullptr, 0, 0, 100));
  EXPECT_EQ(2, MCF_S_IntGet("tarnapp.conf", "DS", "LATE", "", 0, 0, 100));
  EXPECT_EQ(-5, MCF_S_IntGet("tarnapp.conf", "DS", "NEG", "", 0, -10, 0));
  EXPECT_EQ(7, MCF_S_IntGet("tarnapp.conf", "DS", "NEG", "", 7, 0, 100));  // out of range
  EXPECT_EQ(7, MCF_S_IntGet("tarnapp.conf", "DS", "BAD", "", 7, 0, 100));
  EXPECT_EQ(7, MCF_S_IntGet("tarnapp.conf", "DS", "BIG", "", 7, 0, 2147483647));
  EXPECT_EQ(7, MCF_S_IntGet("missing.conf", "DS", "LIMIT", "", 7, 0, 100));
  EXPECT_EQ(10, MCF_S_IntGet((root_ + "/etc/tarnapp.conf").c_str(), "DS", "LIMIT", "", 0, 0, 100));

  char buf[8];
  EXPECT_EQ(buf, MCF_S_StrGet("tarnapp.conf", "DS", "NAME", "", "dflt", buf, sizeof buf));
  EXPECT_STREQ("quoted ", buf);  // cut to the buffer
  EXPECT_EQ(nullptr, MCF_S_StrGet("tarnapp.conf", "DS", "NONE", "", "dflt", buf, sizeof buf));
  EXPECT_STREQ("dflt", buf);

  // The sent-mail charset: the user's setting first, then the global one.
  EXPECT_STREQ("big5", MSLG_GlobalGetSentMailEnc(0));
  MUPRF_GlobalSetStr("SentMailEncoding", "iso-2022-jp");
  EXPECT_STREQ("iso-2022-jp", MSLG_GlobalGetSentMailEnc(0));
  MUPRF_GlobalLoad(nullptr);
  std::filesystem::remove(root_ + "/etc/tarnapp.conf");
  MCF_GlobalLoad(nullptr);
  EXPECT_STREQ("", GINI.sMYDOMAIN);
  EXPECT_STREQ("utf-8", MSLG_GlobalGetSentMailEnc(0));
}

TEST(UserIds, NormaliseAndDomain) {
  char buf[32];
  EXPECT_EQ(0, MUSER_IDNormalize("  Joe.Doe\t", "Example.COM", buf, sizeof buf));
  EXPECT_STREQ("joe.doe@example.com", buf);
  MUSER_IDNormalize("Ann@Example.ORG", "example.com", buf, sizeof buf);
  EXPECT_STREQ("ann@example.org", buf);
  MUSER_IDNormalize("bob", "", buf, 3);
  EXPECT_STREQ("bo", buf);
  EXPECT_EQ(-2, MUSER_IDNormalize(nullptr, "x", buf, sizeof buf));
  EXPECT_STREQ("b.c", MSYS_GetIDDomain("a@x@b.c", buf, sizeof buf));
  EXPECT_STREQ("", MSYS_GetIDDomain("nodomain", buf, sizeof buf));
}

using Log = tarntest::MbxRoot;

TEST_F(Log, WholeLinesFromConcurrentWriters) {
  const std::string path = root_ + "/log/error.log";
  ASSERT_EQ(0, LOG_FileLine("/quillnet/log/error.log", "first %d,(%s).", -1, "a\r\nb"));
  ASSERT_EQ(0, LOG_FileLine("/quillnet/log/error.log", "%s", "second\n"));
  EXPECT_EQ("first -1,(a  b).\nsecond \n", slurp(path));
  EXPECT_EQ(-1, LOG_FileLine(nullptr, "x"));
  EXPECT_EQ(-1, LOG_FileLine((root_ + "/no/such/dir/x.log").c_str(), "x"));

  constexpr int kProcs = 4, kLines = 300, kWidth = 3000;
  in_children(kProcs, [&](int p) {
    const std::string fill(kWidth, static_cast<char>('A' + p));
    for (int k = 0; k < kLines; ++k)
      if (LOG_FileLine("/quillnet/log/error.log", "%d %d %s", p, k, fill.c_str()) != 0) return 1;
    return 0;
  });
  std::istringstream in(slurp(path));
  std::string line;
  std::getline(in, line);
  std::getline(in, line);
  std::vector<int> next(kProcs, 0);  // each writer's lines whole and in its order
  while (std::getline(in, line)) {
    const int p = line[0] - '0';
    ASSERT_TRUE(p >= 0 && p < kProcs) << line.substr(0, 40);
    const int k = next[static_cast<size_t>(p)]++;
    ASSERT_EQ(std::to_string(p) + " " + std::to_string(k) + " " + std::string(kWidth, static_cast<char>('A' + p)), line);
  }
  EXPECT_EQ(std::vector<int>(kProcs, kLines), next);
}

}  // namespace
