// The appliances' key store: keys collected once each, only complete
// single-line keys of a known type, the live file published under a
// temporary name, and a full collection started afresh.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <initializer_list>
#include <string>

#include "jos.h"
#include "sshport.h"

namespace fs = std::filesystem;

namespace {

const std::string kEd = "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIOMqqnkVzrm0SdG6UOoqKLsabgH5C9okWi0dh2l9GKJl ops@site";
const std::string kRsa = "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQC7 cache-01";

class Keys : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/keys-test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        jos_setroot((root_ = tmpl).string());
    }
    void TearDown() override
    {
        jos_setroot("");
        fs::remove_all(root_);
    }
    static void recv(const char* magic, const std::string& text)
    {
        std::string d(magic, 4);
        d += std::string("\x40\x9c\0\0", 4) + text;
        rsa_recv(d.c_str(), d.size());
    }
    std::string file(const char* name) const
    {
        std::ifstream in(root_ / "root/.ssh" / name);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    fs::path root_;
};

TEST_F(Keys, CollectedOnceAndOnlyWhole)
{
    ASSERT_EQ(rsa_init(), 0);
    recv("FRB\0", "RSA=" + kEd + "\r\n");
    recv("LOG\0", "RSA=" + kEd);  // the same key again
    recv(std::string("VTR\0", 4).c_str(), kRsa);
    for (const std::string& bad : std::initializer_list<std::string>{
             "command=\"/bin/sh\" " + kEd,         // an option in front
             kEd + "\nssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQD9 x",  // a second line
             "ssh-foo AAAAC3NzaC1lZDI1NTE5AAAAIOMq x",  // unknown type
             "ssh-rsa short",                        // no key material
             "ssh-rsa AAAAB3NzaC1yc2EAAAADAQAB\x01 x",  // control character
         })
        recv("FRB\0", "RSA=" + bad);
    EXPECT_EQ(file("authorized_keys_tmp"), kEd + "\n" + kRsa + "\n");

    // Published as a copy, owner only; a restart moves the live file back
    // to the collection and reads it.
    ASSERT_EQ(rsa_rename(), 0);
    EXPECT_EQ(file("authorized_keys"), file("authorized_keys_tmp"));
    struct stat st;
    ASSERT_EQ(stat((root_ / "root/.ssh/authorized_keys").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(rsa_init(), 0);
    EXPECT_FALSE(fs::exists(root_ / "root/.ssh/authorized_keys"));
    recv("FRB\0", "RSA=" + kRsa);
    EXPECT_EQ(file("authorized_keys_tmp"), kEd + "\n" + kRsa + "\n");
}

TEST_F(Keys, FullCollectionStartsAfresh)
{
    fs::create_directories(root_ / "root/.ssh");
    std::ofstream out(root_ / "root/.ssh/authorized_keys_tmp");
    for (int i = 0; i < 4000; i++)
        out << "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAAB" << i << " k\n";
    out.close();
    ASSERT_EQ(rsa_init(), 0);
    EXPECT_FALSE(fs::exists(root_ / "root/.ssh/authorized_keys_tmp"));
    recv("FRB\0", "RSA=" + kEd);
    EXPECT_EQ(file("authorized_keys_tmp"), kEd + "\n");
}

}  // namespace
