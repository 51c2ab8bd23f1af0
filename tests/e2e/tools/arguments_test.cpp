// What the programs say to wrong arguments and on a host without an adapter. Needs no network.
#include <array>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Outcome {
    int status = -1;
    std::string out; // both streams
};

Outcome run(const std::string &command, const std::string &redirect = "2>&1")
{
    Outcome result;
    const std::string line = RUK_BINARY_DIR "/bin/" + command + " " + redirect + " </dev/null";
    FILE *pipe = popen(line.c_str(), "r");
    if (!pipe)
        return result;
    std::array<char, 4096> buf;
    for (size_t n; (n = fread(buf.data(), 1, buf.size(), pipe)) > 0;)
        result.out.append(buf.data(), n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

/* A command with one more option; the value is one word, whatever is in it. */
std::string with(const std::string &command, const std::string &option, const std::string &value)
{
    return command + " " + option + " \"" + value + "\"";
}

bool has(const Outcome &outcome, const std::string &text) { return outcome.out.find(text) != std::string::npos; }

// A host with the maker's card answers differently.
bool card_present() { return access("/dev/oxelB0", F_OK) == 0 || access("/dev/oxelBp0", F_OK) == 0; }

const char *const programs[] = {"ruk-info", "ruk-recv", "ruk-send", "ruk-ping"};

} // namespace

TEST(ToolArguments, Help_Asked_TellsOptionsAndExitStatus)
{
    for (const char *program : programs) {
        const Outcome result = run(std::string(program) + " --help");
        EXPECT_EQ(result.status, 0) << program;
        EXPECT_TRUE(has(result, "Exit status: 0")) << program << "\n" << result.out;
        EXPECT_TRUE(has(result, "--version")) << program << "\n" << result.out;
    }
}

TEST(ToolArguments, Version_Asked_NamesProgramAndVersion)
{
    for (const char *program : programs) {
        const Outcome result = run(std::string(program) + " --version");
        EXPECT_EQ(result.status, 0) << program;
        EXPECT_EQ(result.out, std::string(program) + " " RUK_VERSION "\n");
    }
}

TEST(ToolArguments, HelpAndVersion_ThatCannotBeWritten_AreAnError)
{
    for (const char *program : {"ruk-info", "ruk-recv", "ruk-send", "ruk-ping", "ruk-capture", "ruk-top", "ruk-accept",
                                "ruk-bench", "rukrun"}) {
        if (access((RUK_BINARY_DIR "/bin/" + std::string(program)).c_str(), X_OK) != 0)
            continue; // left out of this build
        for (const char *option : {" --help", " --version"}) {
            const Outcome result = run(program + std::string(option), "2>&1 >/dev/full");
            EXPECT_EQ(result.status, program == std::string("rukrun") ? 125 : 2) << program << option;
            EXPECT_EQ(result.out,
                      std::string(program) + ": cannot write to standard output: No space left on device\n");
        }
    }
}

TEST(ToolArguments, InterfaceOfNoName_IsRefusedInWordsOfItsOwn)
{
    for (const char *option : {"-i ''", "-a ''"})
        EXPECT_EQ(run(std::string("ruk-recv -p 5000 ") + option).out,
                  "ruk-recv: -i and -a take the name or the address of an interface, not nothing\n");
}

TEST(ToolArguments, UnknownOption_IsRefusedWithStatusTwo)
{
    for (const char *program : programs)
        EXPECT_EQ(run(std::string(program) + " --no-such-option").status, 2) << program;
}

TEST(ToolArguments, Version_AskedOfASubcommand_IsTheProgramsOwn)
{
    for (const char *command : {"ruk-ping client --version", "ruk-ping server --version", "ruk-accept run --version",
                                "ruk-accept peer --version"}) {
        const Outcome result = run(command);
        EXPECT_EQ(result.status, 0) << command;
        const std::string program(command, strchr(command, ' '));
        EXPECT_EQ(result.out, program + " " RUK_VERSION "\n");
    }
}

TEST(ToolArguments, UsageError_IsSaidAfterTheProgramsName)
{
    EXPECT_EQ(run("ruk-send -i lo 10.0.0.1:5000 -m x -p 70000").out,
              "ruk-send: --port: '70000' is not a whole number from 0 to 65535\n"
              "ruk-send: --help shows what it takes\n");
    for (const char *program : {"ruk-info", "ruk-recv", "ruk-send", "ruk-ping", "ruk-accept", "ruk-top", "ruk-bench"}) {
        if (access((RUK_BINARY_DIR "/bin/" + std::string(program)).c_str(), X_OK) != 0)
            continue; // left out of this build
        const Outcome result = run(std::string(program) + " --no-such-option");
        EXPECT_EQ(result.status, 2) << program;
        EXPECT_EQ(result.out.rfind(std::string(program) + ": ", 0), 0u) << result.out;
    }
}

// A count below 0 would be a number beyond all bounds, and no moment lies a "nan" of seconds ahead.
TEST(ToolArguments, Number_WithASignOrNotFiniteOrOutOfRange_IsRefused)
{
    const std::string count = "is not a whole number", seconds = "is not a number from 0 to 1000000000";
    const struct {
        const char *command, *option;
        std::string refusal;
    } cases[] = {
        {"ruk-send -i lo 10.0.0.1:5000 -m x", "-n", count},
        {"ruk-send -i lo 10.0.0.1:5000", "--size", count},
        {"ruk-send -i lo 10.0.0.1:5000 -m x", "-p", count + " from 0 to 65535"},
        {"ruk-send -i lo 10.0.0.1:5000 -m x", "--ttl", count + " from 1 to 64"},
        {"ruk-send -i lo 10.0.0.1:5000 -m x", "-r", "is not a number from 0.001 to 1000000000"},
        {"ruk-recv -i lo -p 5000", "-n", count},
        {"ruk-recv -i lo -p 5000", "-p", count + " from 0 to 65535"},
        {"ruk-recv -i lo -p 5000", "-t", seconds},
        {"ruk-top", "-n", count + " from 1 to 1000000000"},
        {"ruk-top", "-d", "is not a number from 0.01 to 3600"},
        {"ruk-capture -i lo -w /dev/null", "-n", count},
        {"ruk-capture -i lo -w /dev/null", "-t", seconds},
        {"ruk-capture -i lo -w /dev/null", "-s", count + " from 1 to 65536"},
        {"ruk-ping client --kernel -i lo 127.0.0.1:9", "--warmup", count + " from 0 to 1000000000"},
        {"ruk-ping client --kernel -i lo 127.0.0.1:9", "--count", count + " from 1 to 1000000000"},
        {"ruk-ping client --kernel -i lo 127.0.0.1:9", "-n", count + " from 1 to 1000000000"},
        {"ruk-ping client --kernel -i lo 127.0.0.1:9", "--size", count},
        {"ruk-ping client --kernel -i lo 127.0.0.1:9", "--interval", seconds},
        {"ruk-ping client --kernel -i lo 127.0.0.1:9", "--timeout", "is not a number from 0.001 to 1000000000"},
        {"ruk-ping client --kernel -i lo 127.0.0.1:9", "-t", seconds},
        {"ruk-ping client --kernel -i lo 127.0.0.1:9", "--cpu", count + " from 0 to 1023"},
        {"ruk-ping server --kernel -i lo -p 0", "-n", count},
        {"ruk-ping server --kernel -i lo -p 0", "-t", seconds},
        {"ruk-accept run -i lo 127.0.0.1", "--minutes", "is not a number from 0.01 to 1000"},
        {"ruk-accept run -i lo 127.0.0.1", "-p", count + " from 1 to 65534"},
    };
    for (const auto &[command, option, refusal] : cases) {
        const std::string program(command, strcspn(command, " "));
        if (access((RUK_BINARY_DIR "/bin/" + program).c_str(), X_OK) != 0)
            continue; // left out of this build
        for (const char *value : {"-1", "+1", "nan", "inf", "-inf", "1x", "0x1", " 1", "", "1e300",
                                  "340282366920938463463374607431768211457"}) { // 1 in 64 bits, and in 32
            const Outcome result = run(with(command, option, value));
            EXPECT_EQ(result.status, 2) << command << " " << option << " " << value << "\n" << result.out;
            EXPECT_TRUE(has(result, program + ": ") && has(result, refusal))
                << command << " " << option << " " << value << "\n"
                << result.out;
        }
    }
}

TEST(ToolArguments, Top_NoLookAtAll_IsRefused)
{
    const Outcome result = run("ruk-top -n 0");
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(has(result, "'0' is not a whole number from 1 to 1000000000")) << result.out;
}

TEST(ToolArguments, Number_WithLeadingZeros_IsDecimal)
{
    // 0010 is ten, not eight.
    const Outcome result = run("ruk-recv -i lo -p 10 -p 0010");
    EXPECT_EQ(result.out, "ruk-recv: port 10 is given twice\n");
}

TEST(ToolArguments, Interface_MissingOrDouble_IsRefused)
{
    EXPECT_EQ(run("ruk-recv -p 5000").status, 2);
    EXPECT_EQ(run("ruk-recv -i lo -a 127.0.0.1 -p 5000").status, 2);
    EXPECT_EQ(run("ruk-send 10.0.0.1:5000 -m x").status, 2);
    EXPECT_EQ(run("ruk-ping client 10.0.0.1:5000").status, 2);
}

TEST(ToolArguments, Interface_Unknown_IsNamed)
{
    const Outcome result = run("ruk-recv -i nosuchif0 -p 5000");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "ruk-recv: no interface is named 'nosuchif0'\n");
}

TEST(ToolArguments, Address_NotLocalOrNotAnAddress_IsNamed)
{
    Outcome result = run("ruk-recv -a 192.0.2.77 -p 5000");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "ruk-recv: no interface has the address 192.0.2.77\n");
    result = run("ruk-recv -a 192.0.2 -p 5000");
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(has(result, "'192.0.2' is not an IPv4 address")) << result.out;
}

TEST(ToolArguments, NoAdapter_ProgramsSayHowToHaveOne)
{
    if (card_present())
        GTEST_SKIP() << "this host has a card";
    for (const char *command :
         {"ruk-recv -a 127.0.0.1 -p 5000", "ruk-send -a 127.0.0.1 127.0.0.1:5000 -m x",
          "ruk-ping server -a 127.0.0.1 -p 5000", "ruk-ping client -a 127.0.0.1 127.0.0.1:5000"}) {
        const Outcome result = run(command);
        EXPECT_EQ(result.status, 2) << command;
        EXPECT_TRUE(has(result, "rukrun --soft")) << command << "\n" << result.out;
    }
}

TEST(ToolArguments, NoAdapter_InfoShowsLibraryAndEndsWithStatusOne)
{
    if (card_present())
        GTEST_SKIP() << "this host has a card";
    const Outcome text = run("ruk-info");
    EXPECT_EQ(text.status, 1);
    EXPECT_TRUE(has(text, "library: " RUK_VERSION)) << text.out;
    EXPECT_TRUE(has(text, "driver:  none")) << text.out;
    EXPECT_TRUE(has(text, "rukrun --soft")) << text.out;

    const Outcome json = run("ruk-info --json", "2>/dev/null");
    EXPECT_EQ(json.status, 1);
    const nlohmann::json info = nlohmann::json::parse(json.out, nullptr, false);
    ASSERT_TRUE(info.is_object()) << json.out;
    EXPECT_EQ(info["library"]["version"], RUK_VERSION);
    EXPECT_EQ(info["library"]["interface"], "4.0");
    EXPECT_TRUE(info["driver"].is_null());
    EXPECT_EQ(info["boards"], nlohmann::json::array());
}

TEST(ToolArguments, Receive_WithoutPort_IsRefused)
{
    const Outcome result = run("ruk-recv -i lo");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "ruk-recv: which port? (-p PORT)\n");
    EXPECT_EQ(run("ruk-recv -i lo -p 65536").status, 2);
    EXPECT_EQ(run("ruk-recv -i lo -p x").status, 2);
}

TEST(ToolArguments, Receive_PortTwice_IsRefused)
{
    const Outcome result = run("ruk-recv -i lo -p 5000 -p 5001 -p 5000");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "ruk-recv: port 5000 is given twice\n");
}

// A group that is joined twice on a channel ends the process when it is left.
TEST(ToolArguments, Receive_GroupTwice_IsRefused)
{
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 -g 239.1.1.1 -g 239.1.1.1").out,
              "ruk-recv: group 239.1.1.1 is given twice\n");
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 -g 239.1.1.1@10.0.0.1 -g 239.1.1.1@10.0.0.1").status, 2);
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 -g 239.1.1.1@10.0.0.1 -g 239.1.1.1").out,
              "ruk-recv: group 239.1.1.1 is given both with and without a source\n");
    // The library takes the second for the first.
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 -g 239.1.1.1@10.0.0.9 -g 239.1.1.1@9.0.0.10").out,
              "ruk-recv: group 239.1.1.1: the library cannot tell source 9.0.0.10 from 10.0.0.9, whose bytes mirror "
              "it\n");
}

TEST(ToolArguments, Receive_GroupThatIsNone_IsRefused)
{
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 -g 10.0.0.1").status, 2);
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 -g 240.0.0.1").status, 2);
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 -g group").status, 2);
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 -g 239.1.1.1@").status, 2);
}

TEST(ToolArguments, Receive_BlockWithoutSourceOrMembership_IsRefused)
{
    EXPECT_TRUE(has(run("ruk-recv -i lo -p 5000 -g 239.1.1.1 --block 239.1.1.1"), "names no source"));
    EXPECT_TRUE(has(run("ruk-recv -i lo -p 5000 --block 239.1.1.1@10.0.0.1"), "join the group with -g 239.1.1.1"));
}

TEST(ToolArguments, Receive_UnknownModes_AreRefused)
{
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 --wait sometimes").status, 2);
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 --filter some").status, 2);
    EXPECT_EQ(run("ruk-recv -i lo -p 5000 -t -1").status, 2);
}

TEST(ToolArguments, Send_DestinationThatIsNone_IsNamed)
{
    for (const char *destination :
         {"10.0.0.1", "10.0.0.1:", "10.0.0.1:0", "10.0.0.1:65536", "10.0.0.1:5000x", ":5000"}) {
        const Outcome result = run(std::string("ruk-send -i lo -m x ") + destination);
        EXPECT_EQ(result.status, 2) << destination;
        EXPECT_TRUE(has(result, "is not")) << result.out;
    }
}

TEST(ToolArguments, Send_ContradictingOptions_AreRefused)
{
    EXPECT_EQ(run("ruk-send -i lo 10.0.0.1:5000 -m x --size 3").status, 2);
    EXPECT_EQ(run("ruk-send -i lo 10.0.0.1:5000 -m x --connect --sendto").status, 2);
    EXPECT_EQ(run("ruk-send -i lo 10.0.0.1:5000 -m x --sendto --ttl 3").status, 2);
    EXPECT_EQ(run("ruk-send -i lo 10.0.0.1:5000 -m x --ttl 65").status, 2);
    EXPECT_EQ(run("ruk-send -i lo 10.0.0.1:5000 -m x -r 0").status, 2);
}

TEST(ToolArguments, Send_FileThatCannotBeRead_IsNamed)
{
    for (const char *file : {"/nonexistent/file: No such file or directory", "/: Is a directory"}) {
        const std::string name(file, strchr(file, ':'));
        const Outcome result = run("ruk-send -i lo 10.0.0.1:5000 -f " + name);
        EXPECT_EQ(result.status, 2) << name;
        EXPECT_TRUE(has(result, std::string("ruk-send: cannot read ") + file)) << result.out;
    }
}

TEST(ToolArguments, Ping_WithoutRole_IsRefused) { EXPECT_EQ(run("ruk-ping").status, 2); }

TEST(ToolArguments, Ping_PayloadBeyondADatagram_IsRefused)
{
    const Outcome result = run("ruk-ping client --kernel -a 127.0.0.1 127.0.0.1:5000 --size 65508");
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(has(result, "carries 65507 at most")) << result.out;
}
