/* The banner, debug lines and the assertion report. The banner's state is the process's: mostly in children. */
#include "endpoint_test.h"

#include <signal.h>
#include <unistd.h>

extern "C" const char *__progname;

using namespace test_support;

namespace {

class BannerTest : public EndpointTest {
protected:
    /* What is said on standard error by a process of that name in which piece runs; empty on any other end. */
    std::string said(const char *program, const std::function<void()> &piece)
    {
        ChildResult child = run_in_child([&] {
            __progname = program;
            ruk__api_version = 0;
            piece();
            close();
            printf("%d", static_cast<int>(getpid()));
            return 0;
        });
        EXPECT_TRUE(child.exited_with(0)) << child;
        pid_ = child.out;
        return child.err;
    }
    bool is_banner(const std::string &line, const std::string &program)
    {
        return matches(line, program + "\\[" + pid_ + "\\] RUK " + version_form + " [^\n]+\n");
    }
    void init_and_open()
    {
        EXPECT_EQ(ruk__init(4), 0);
        open();
    }
    void open_by_mac()
    {
        uint8_t mac[6] = {0x02, 0x6f, 0x78, 0, 0, 1};
        ruk_device_t other = nullptr;
        EXPECT_EQ(ruk_open_by_perm_mac(mac, &loopback, 0, &other), 0);
        ruk_close(other);
    }

    std::string pid_;
};

TEST_F(BannerTest, FirstOpenOfAWrappedProgram_OneLine)
{
    std::string text = said("feedhandler", [&] { init_and_open(); });
    EXPECT_TRUE(is_banner(text, "feedhandler")) << text;
}

TEST_F(BannerTest, LaterOpens_Silent)
{
    std::string text = said("app", [&] {
        init_and_open();
        close();
        open();
    });
    EXPECT_TRUE(is_banner(text, "app")) << text;
}

TEST_F(BannerTest, EachOfTheTwoWaysToOpen_OnceForItself)
{
    std::string text = said("app", [&] {
        init_and_open();
        open_by_mac();
        open_by_mac();
    });
    size_t second = text.find('\n') + 1;
    EXPECT_TRUE(is_banner(text.substr(0, second), "app")) << text;
    EXPECT_TRUE(is_banner(text.substr(second), "app")) << text;
}

TEST_F(BannerTest, PlainInit_Silent)
{
    EXPECT_EQ(said("app",
                   [&] {
                       EXPECT_EQ(ruk_init(4), 0);
                       open();
                       open_by_mac();
                   }),
              "");
}

TEST_F(BannerTest, TheLauncherItself_Silent)
{
    EXPECT_EQ(said("rukrun", [&] { init_and_open(); }), "");
    std::string text = said("rukrunner", [&] { init_and_open(); });
    EXPECT_TRUE(is_banner(text, "rukrunner")) << text;
    text = said("rukru", [&] { init_and_open(); });
    EXPECT_TRUE(is_banner(text, "rukru")) << text;
}

TEST_F(BannerTest, LongProgramName_CutAt127Characters)
{
    const std::string name(200, 'n');
    std::string text = said(name.c_str(), [&] { init_and_open(); });
    EXPECT_TRUE(is_banner(text, std::string(127, 'n'))) << text;
}

TEST_F(BannerTest, SwitchedOffByANumberThatIsZero)
{
    for (const char *value : {"0", "0x0", "00", "+0"}) {
        ScopedEnv off("RUK_BANNER", value);
        EXPECT_EQ(said("app", [&] { init_and_open(); }), "") << value;
    }
}

TEST_F(BannerTest, EmptyValueWordOrAnotherNumber_LeavesItOn)
{
    for (const char *value : {"", "1", "-1", "0x10", "off", "no"}) {
        ScopedEnv on("RUK_BANNER", value);
        std::string text = said("app", [&] { init_and_open(); });
        EXPECT_TRUE(is_banner(text, "app")) << value << ": " << text;
    }
}

TEST_F(BannerTest, SwitchedOffOnce_OffForTheProcess)
{
    EXPECT_EQ(said("app",
                   [&] {
                       setenv("RUK_BANNER", "0", 1);
                       init_and_open();
                       unsetenv("RUK_BANNER");
                       close();
                       open();
                       open_by_mac();
                   }),
              "");
}

TEST_F(BannerTest, FailedOpens_CountAsFirst)
{
    std::string text = said("app", [&] {
        EXPECT_EQ(ruk__init(4), 0);
        struct in_addr nowhere = in_addr_of("10.9.9.9");
        ruk_device_t none = nullptr;
        EXPECT_EQ(ruk_open(&nowhere, 0, &none), ENODEV);
        open();
    });
    EXPECT_TRUE(is_banner(text, "app")) << text;
}

/* ------------------------------------------------------------------ debug lines and assertions */

TEST(DebugLine, FunctionAndMessageOnStandardError)
{
    StreamCapture streams;
    ruk__debug_line("map_region", "%s %d", "text", 7);
    EXPECT_EQ(streams.err(), "RUK (map_region): text 7\n");
    EXPECT_EQ(streams.out(), "");
}

TEST(DebugLine, LongMessage_CutAt127Characters)
{
    StreamCapture streams;
    ruk__debug_line("f", "%s", std::string(127, 'x').c_str());
    EXPECT_EQ(streams.err(), "RUK (f): " + std::string(127, 'x') + "\n");
    streams.clear();
    ruk__debug_line("f", "%s", (std::string(127, 'x') + "y").c_str());
    EXPECT_EQ(streams.err(), "RUK (f): " + std::string(127, 'x') + "\n");
}

TEST(Assertion, Failed_ReportedOnStandardOutputAndAborts)
{
    ChildResult child = run_in_child([]() -> int { ruk__assertion_failed("a == b", 4711, "ruk_open"); });
    EXPECT_TRUE(child.killed_by(SIGABRT)) << child;
    EXPECT_EQ(child.out, "ruk: assertion: <<a == b>>  failed at line 4711, file ruk_open\n");
    EXPECT_EQ(child.err, "");
}

} // namespace
