/* Initialisation: what callers and drivers are accepted, what is asked of the driver, what is said when not. */
#include "endpoint_test.h"

using namespace test_support;

namespace {

/* The process-wide state as the program starts: taken before main(), when nobody has called the library yet. */
struct StateAtStart {
    int debug = __ruk_debug, verbose = __ruk_verbose, init_ext = ruk__init_ext;
    uint32_t api_version = ruk__api_version;
    int banner_allowed = banner, banner_pending = show_once;
};
const StateAtStart at_start;

TEST(ProgramStart, ProcessWideState_SwitchesOffNotInitialisedBannerAllowedAndNotYetShown)
{
    EXPECT_EQ(at_start.debug, 0);
    EXPECT_EQ(at_start.verbose, 0);
    EXPECT_EQ(at_start.api_version, 0u);
    EXPECT_EQ(at_start.init_ext, 0);
    EXPECT_EQ(at_start.banner_allowed, 1);
    EXPECT_EQ(at_start.banner_pending, 1);
}

/* A name, a version, a revision, and when it was built. */
TEST(ProgramStart, BuildString_NameVersionRevisionDateAndTime)
{
    const std::string version = ruk__lib_version;
    EXPECT_TRUE(matches(version, version_form)) << version;
    const std::string build = ruk__lib_build, start = "libruk " + version + " revision ";
    ASSERT_EQ(build.substr(0, start.size()), start) << build;
    EXPECT_TRUE(matches(build.substr(start.size()), "[0-9A-Za-z][-+._0-9A-Za-z]* built [A-Z][a-z][a-z] [ 0-3][0-9] "
                                                    "[0-9]{4} [0-2][0-9]:[0-5][0-9]:[0-6][0-9]"))
        << build;
}

class InitTest : public EndpointTest {
protected:
    InitTest() { ruk__api_version = 0; }

    const Lines one_query = {"open /dev/oxelBp0", "4D01", "close"};
};

TEST_F(InitTest, SameVersionTwice_BothAccepted_DriverAskedOnce)
{
    StreamCapture streams;
    EXPECT_EQ(ruk_init(0x0004), 0);
    EXPECT_EQ(driver.take_trace(), one_query);
    EXPECT_EQ(ruk_init(0x0004), 0);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(ruk__api_version, 4u);
    EXPECT_EQ(streams.out(), "");
    EXPECT_EQ(streams.err(), "");
}

TEST_F(InitTest, AnotherVersionLater_Refused_FirstVersionStays)
{
    ASSERT_EQ(ruk_init(0x0004), 0);
    driver.take_trace();
    StreamCapture streams;
    EXPECT_EQ(ruk_init(0x0005), EINVAL);
    EXPECT_EQ(streams.out(), "RUK API Version mismatch\n");
    EXPECT_EQ(streams.err(), "");
    streams.clear();
    EXPECT_EQ(ruk_init(0x0104), EINVAL) << "the version in force is compared before the major number";
    EXPECT_EQ(streams.out(), "RUK API Version mismatch\n");
    EXPECT_EQ(streams.err(), "");
    EXPECT_EQ(ruk__api_version, 4u);
    EXPECT_EQ(ruk_init(0x0004), 0);
    EXPECT_EQ(driver.trace, Lines{});
}

TEST_F(InitTest, VersionInForce_ComparedByItsLowSixteenBits)
{
    ruk__api_version = 0x70004;
    EXPECT_EQ(ruk_init(0x0004), 0);
    EXPECT_EQ(ruk__api_version, 0x70004u);
    EXPECT_EQ(driver.trace, Lines{});
}

TEST_F(InitTest, AnyMinorVersionOfTheCaller_Accepted)
{
    EXPECT_EQ(ruk_init(0x00FF), 0);
    EXPECT_EQ(ruk__api_version, 0xFFu);
    ruk__api_version = 0;
    EXPECT_EQ(ruk_init(0x0001), 0);
    EXPECT_EQ(ruk__api_version, 1u);
}

TEST_F(InitTest, VersionZero_AcceptedWithoutEffect_DriverAskedEachTime)
{
    EXPECT_EQ(ruk_init(0), 0);
    EXPECT_EQ(ruk__api_version, 0u);
    EXPECT_EQ(driver.take_trace(), one_query);
    EXPECT_EQ(ruk_init(0), 0);
    EXPECT_EQ(driver.take_trace(), one_query);
    EXPECT_EQ(ruk_init(7), 0) << "not initialised yet: any version is a first one";
}

TEST_F(InitTest, MajorVersionOfTheCallerNotZero_RefusedWithBothVersions_DriverNotAsked)
{
    StreamCapture streams;
    EXPECT_EQ(ruk_init(0x0104), EINVAL);
    EXPECT_EQ(streams.err(), "RUK user API 0x0104 is incompatible with library API 0x0004\n");
    streams.clear();
    EXPECT_EQ(ruk_init(0x0100), EINVAL);
    EXPECT_EQ(streams.err(), "RUK user API 0x0100 is incompatible with library API 0x0004\n");
    streams.clear();
    EXPECT_EQ(ruk_init(0xFFFF), EINVAL);
    EXPECT_EQ(streams.err(), "RUK user API 0xffff is incompatible with library API 0x0004\n");
    EXPECT_EQ(streams.out(), "");
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(ruk__api_version, 0u);
    EXPECT_EQ(ruk_init(0x0004), 0) << "a refused first call may be repeated";
}

/* A companion library that fills the socket table gets its turn before anything is refused. */
TEST_F(InitTest, MajorVersionOfTheCallerNotZero_SocketTableFilledAllTheSame)
{
    ChildResult child = run_in_child([] {
        init_done = 0;
        EXPECT_EQ(ruk_init(0x0100), EINVAL);
        return init_done;
    });
    EXPECT_TRUE(child.exited_with(1)) << child;
    /* A library that is initialised only compares. */
    child = run_in_child([] {
        ruk__api_version = 4;
        init_done = 0;
        EXPECT_EQ(ruk_init(4), 0);
        EXPECT_EQ(ruk_init(5), EINVAL);
        return init_done;
    });
    EXPECT_TRUE(child.exited_with(0)) << child;
}

TEST_F(InitTest, DriverOfMajorVersionFour_AnyMinor_Accepted)
{
    for (uint32_t magic : {0x0400u, 0x0401u, 0x04FFu}) {
        ruk__api_version = 0;
        driver.version.driver_api_magic = magic;
        EXPECT_EQ(ruk_init(4), 0) << std::hex << magic;
    }
}

struct ForeignDriver {
    uint32_t magic;
    const char *kernel;
};

class InitForeignDriverTest : public InitTest, public testing::WithParamInterface<ForeignDriver> {};

/* The message's opening parenthesis is never closed. */
TEST_P(InitForeignDriverTest, Init_RefusedWithVersionsOfBothSides)
{
    driver.version.driver_api_magic = GetParam().magic;
    strcpy(driver.version.version_str, "9.8.7");
    strcpy(driver.version.build_str, "some driver, built by hand");
    StreamCapture streams;
    EXPECT_EQ(ruk_init(4), ENXIO);
    EXPECT_EQ(driver.trace, one_query);
    EXPECT_EQ(streams.out(), "");

    const std::string start =
        "RUK library and driver API mismatch (lib=4.0, kernel=" + std::string(GetParam().kernel) + "\n";
    std::string text = streams.err();
    ASSERT_EQ(text.substr(0, start.size()), start);
    const std::string end = "\n\t RUK kernel version=9.8.7\n\t RUK kernel build=some driver, built by hand\n";
    ASSERT_GT(text.size(), start.size() + end.size());
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
    std::string middle = text.substr(start.size(), text.size() - start.size() - end.size());
    ASSERT_TRUE(matches(middle, "\t RUK lib version=" + version_form + "\n\t RUK lib build=[^\n]+")) << middle;
    const size_t at = strlen("\t RUK lib version=");
    const std::string version = middle.substr(at, middle.find('\n') - at);
    EXPECT_NE(middle.find("build=libruk " + version), std::string::npos)
        << "the build string names library and version";

    EXPECT_EQ(ruk__api_version, 0u);
    driver.version.driver_api_magic = 0x0400;
    EXPECT_EQ(ruk_init(4), 0) << "a refused first call may be repeated";
}

INSTANTIATE_TEST_SUITE_P(Magics, InitForeignDriverTest,
                         testing::Values(ForeignDriver{0x03FF, "3.255"}, ForeignDriver{0x0500, "5.0"},
                                         ForeignDriver{0, "0.0"}, ForeignDriver{0x10400, "260.0"}));

TEST_F(InitTest, DriverRefusesTheVersionCommand_ItsErrorReturned_DeviceClosed)
{
    StreamCapture streams;
    driver.fail(OXEL_GET_VERSION, 1, EIO);
    EXPECT_EQ(ruk_init(4), EIO);
    EXPECT_EQ(driver.trace, one_query);
    EXPECT_EQ(driver.handles().size(), 0u);
    EXPECT_EQ(streams.out() + streams.err(), "");
    EXPECT_EQ(ruk__api_version, 0u);
}

TEST_F(InitTest, NoDeviceCanBeOpened_ErrorReturned_NothingSaid)
{
    StreamCapture streams;
    driver.boards.clear();
    EXPECT_EQ(ruk_init(4), ENOENT);
    driver.open_errors = {{"/dev/oxelBp0", ENODEV}, {"/dev/oxelB0", ENODEV}};
    EXPECT_EQ(ruk_init(4), ENODEV);
    driver.open_errors = {{"/dev/oxelBp0", EACCES}, {"/dev/oxelB0", EACCES}};
    EXPECT_EQ(ruk_init(4), EACCES);
    driver.open_errors = {{"/dev/oxelBp0", EBUSY}, {"/dev/oxelB0", EBUSY}};
    EXPECT_EQ(ruk_init(4), EBUSY);
    EXPECT_EQ(streams.out() + streams.err(), "");
    EXPECT_EQ(ruk__api_version, 0u);
}

/* Presence counts, whatever the value. */
TEST_F(InitTest, DiagnosticVariablesPresent_SwitchesOnForGood)
{
    {
        ScopedEnv verbose("RUK_IP_VERBOSE", "0");
        EXPECT_EQ(ruk_init(4), 0);
    }
    EXPECT_EQ(__ruk_verbose, 1);
    EXPECT_EQ(__ruk_debug, 0);
    {
        ScopedEnv debug("RUK_DEBUG", "");
        EXPECT_EQ(ruk_init(4), 0);
    }
    EXPECT_EQ(__ruk_debug, 1) << "read again by a later call";
    EXPECT_EQ(ruk_init(4), 0);
    EXPECT_EQ(__ruk_verbose, 1);
    EXPECT_EQ(__ruk_debug, 1);
}

TEST_F(InitTest, DiagnosticVariablesPresent_ReadEvenWhenTheVersionIsRefused)
{
    ScopedEnv verbose("RUK_IP_VERBOSE", "");
    ScopedEnv debug("RUK_DEBUG", "0");
    StreamCapture streams;
    EXPECT_EQ(ruk_init(0x0100), EINVAL);
    EXPECT_EQ(__ruk_verbose, 1);
    EXPECT_EQ(__ruk_debug, 1);
}

TEST_F(InitTest, WrapperEntry_MarksTheProcessAndInitialises)
{
    driver.fail(OXEL_GET_VERSION, 1, EPERM);
    EXPECT_EQ(ruk__init(4), EPERM);
    EXPECT_EQ(ruk__init_ext, 1) << "marked whatever the result";
    EXPECT_EQ(ruk__init(4), 0);
    EXPECT_EQ(ruk__api_version, 4u);
}

/* ------------------------------------------------------------------ queries */

TEST_F(InitTest, GetTicks_PairedReadingOfTheEndpointsDriver)
{
    ruk__api_version = 4;
    open(RUK_OPEN_THREAD_SAFE);
    driver.take_trace();
    driver.command_handles.clear();
    ruk_ticks_t t = {1, 1, 1};
    pthread_mutex_lock(&dev->rep_rx_lock); /* takes neither lock */
    pthread_mutex_lock(&dev->rep_lock);
    EXPECT_EQ(ruk_getticks(dev, &t), 0);
    pthread_mutex_unlock(&dev->rep_lock);
    pthread_mutex_unlock(&dev->rep_rx_lock);
    EXPECT_EQ(t.nic_ticks, 1001u);
    EXPECT_EQ(t.host_nsecs, 2002u);
    EXPECT_EQ(t.host_nsecs_delay, 3003u);
    EXPECT_EQ(driver.trace, Lines{"4D29 " + std::string(16, '0')});
    EXPECT_EQ(driver.command_handles, std::vector<int>{dev->rep_handle});
}

TEST_F(InitTest, GetTicks_DriverFails_ErrorAndZeros)
{
    ruk__api_version = 4;
    open();
    driver.fail(OXEL_GET_NIC_TICKS, 1, EIO);
    ruk_ticks_t t = {1, 2, 3};
    StreamCapture streams;
    EXPECT_EQ(ruk_getticks(dev, &t), EIO);
    EXPECT_EQ(t.nic_ticks, 0u);
    EXPECT_EQ(t.host_nsecs, 0u);
    EXPECT_EQ(t.host_nsecs_delay, 0u);
    EXPECT_EQ(streams.out() + streams.err(), "");
}

TEST_F(InitTest, DeviceHandle_TheDescriptorThatIsOpen)
{
    ruk__api_version = 4;
    open();
    ASSERT_EQ(driver.handles().size(), 1u);
    EXPECT_EQ(ruk_device_handle(dev), driver.handles()[0]);
}

} // namespace
