// mbx_fixture.h - a private installation root for the mailbox tests: a
// temporary QUILLNET_ROOT with its own "etc/tarnapp.conf", removed at the
// end.
#ifndef TARN_TESTS_MBX_FIXTURE_H
#define TARN_TESTS_MBX_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tarnplat.h"

namespace tarntest {

class MbxRoot : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tarn_mbx_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    root_ = tmpl;
    setenv("QUILLNET_ROOT", root_.c_str(), 1);
    std::filesystem::create_directories(root_ + "/etc");
    write_conf("[Global]\nMYDOMAIN = example.com\n");
  }
  void TearDown() override {
    unsetenv("QUILLNET_ROOT");
    unsetenv("TARN_MBX_NOFSYNC");
    std::filesystem::remove_all(root_);
    MCF_GlobalLoad(nullptr);  // back to the defaults of a missing file
  }

  // Replaces tarnapp.conf and reloads the global configuration.
  void write_conf(const std::string& text) {
    std::ofstream(root_ + "/etc/tarnapp.conf") << text;
    MCF_GlobalLoad(nullptr);
  }
  static std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  std::string mbox_dir(const std::string& user_part, const std::string& mbox_part) const {
    return root_ + "/mbox/" + user_part + "/" + mbox_part;
  }

  // Runs body in n child processes (argument: the child's number) and
  // expects each to exit with 0.
  template <typename F>
  static void in_children(int n, F body) {
    std::vector<pid_t> kids;
    for (int i = 0; i < n; ++i) {
      const pid_t pid = fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) _exit(body(i));
      kids.push_back(pid);
    }
    for (pid_t pid : kids) {
      int status = 0;
      ASSERT_EQ(pid, waitpid(pid, &status, 0));
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    }
  }

  std::string root_;
};

// The index of a mailbox as MBX_IdxList gives it.
inline std::vector<MBX_Idx> list_index(const char* user, const char* mbox) {
  std::vector<MBX_Idx> out;
  MBX* m = MBX_Open(user, mbox, MBX_MODE_READ);
  if (m == nullptr) return out;
  MBX_Idx* recs = nullptr;
  size_t n = 0;
  if (MBX_IdxList(m, &recs, &n) == 0) out.assign(recs, recs + n);
  free(recs);
  MBX_Close(m);
  return out;
}

}  // namespace tarntest

#endif
