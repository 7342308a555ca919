// CGI request variables, and the stat and open wrappers of the platform.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tarnplat.h"

namespace {

class Cgi : public ::testing::Test {
 protected:
  void TearDown() override {
    unsetenv("QUERY_STRING");
    MCGI_SetPostBody(nullptr, 0);
  }
  static std::string get(const char* name) {
    const char* v = MCGI_VarStrGet(name);
    return v != nullptr ? std::string(v) : std::string("<absent>");
  }
};

TEST_F(Cgi, QueryStringDecodingAndPresence) {
  setenv("QUERY_STRING", "msgid=12%2F3+x&mbox=INBOX&board&enews=&m=a%zzb&%6Dsg=7;last=%41%00hidden&msgid=2", 1);
  EXPECT_EQ("12/3 x", get("msgid"));  // the first occurrence wins
  EXPECT_EQ("INBOX", get("mbox"));
  EXPECT_EQ("", get("board"));        // present without a value
  EXPECT_EQ("", get("enews"));
  EXPECT_EQ("a%zzb", get("m"));       // a '%' without two hex digits stays
  EXPECT_EQ("7", get("msg"));         // names are decoded too
  EXPECT_EQ("A", get("last"));        // cut at a decoded NUL
  EXPECT_EQ("<absent>", get("MBOX")); // names keep their case
  EXPECT_EQ("<absent>", get(""));
  EXPECT_EQ(nullptr, MCGI_VarStrGet(nullptr));
}

TEST_F(Cgi, FollowsTheEnvironmentAndThePostBody) {
  unsetenv("QUERY_STRING");
  EXPECT_EQ("<absent>", get("msgid"));
  setenv("QUERY_STRING", "msgid=1", 1);
  EXPECT_EQ("1", get("msgid"));
  setenv("QUERY_STRING", "msgid=2", 1);
  EXPECT_EQ("2", get("msgid"));

  const char body[] = "mbox=Sent&msgid=9\0board=b";
  ASSERT_EQ(0, MCGI_SetPostBody(body, sizeof body - 1));
  EXPECT_EQ("2", get("msgid"));  // the query string comes first
  EXPECT_EQ("Sent", get("mbox"));
  EXPECT_EQ("b", get("board"));  // a NUL separates pairs
  ASSERT_EQ(0, MCGI_SetPostBody(nullptr, 0));
  EXPECT_EQ("<absent>", get("mbox"));
}

TEST(Files, StatAndOpen) {
  char dir[] = "/tmp/tarn_mfs_XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  std::string path = std::string(dir) + "/f";
  struct stat st;
  EXPECT_EQ(-1, MFS_Stat(path.c_str(), &st));
  EXPECT_EQ(-1, MFS_Stat(nullptr, &st));
  EXPECT_EQ(EINVAL, errno);

  int fd = MIO_Open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0700);
  ASSERT_GE(fd, 0);
  EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
  ASSERT_EQ(3, write(fd, "abc", 3));
  close(fd);
  ASSERT_EQ(0, MFS_Stat(path.c_str(), &st));
  EXPECT_EQ(3, st.st_size);
  EXPECT_EQ(0700u, st.st_mode & 0777u);
  EXPECT_EQ(-1, MIO_Open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0700));
  EXPECT_EQ(-1, MIO_Open(nullptr, O_RDONLY, 0));

  unlink(path.c_str());
  rmdir(dir);
}

}  // namespace
