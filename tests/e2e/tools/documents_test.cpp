// What the README shows is what happens: the demo's output line by line, and the first program.
#include "tool_lab.h"

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

using namespace tool_test;

namespace {

const std::string source_dir = RUK_SOURCE_DIR;

/* The text of the README's fenced block between <!-- NAME --> and <!-- /NAME -->. */
std::string readme_block(const std::string &name)
{
    const std::string text = contents(source_dir + "/README.md");
    const size_t start = text.find("<!-- " + name + " -->");
    const size_t end = text.find("<!-- /" + name + " -->");
    if (start == std::string::npos || end == std::string::npos)
        return {};
    const size_t first = text.find('\n', text.find("```", start)) + 1;
    return text.substr(first, text.rfind("```", end) - first);
}

/* A line with what differs from run to run taken out: times. */
std::string shape(const std::string &line)
{
    return std::regex_replace(std::regex_replace(line, std::regex("[0-9]{10}\\.[0-9]{9}"), "TIME"),
                              std::regex("[0-9.]+ s \\([0-9]+ a second\\)"), "SECONDS");
}

bool may_be_root_of_namespaces() { return system("unshare -Urn true 2>/dev/null") == 0; }

void replace_all(std::string &text, const std::string &what, const std::string &with)
{
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
        text.replace(at, what.size(), with);
}

std::vector<std::string> shapes(const std::string &text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        result.push_back(shape(line));
    return result;
}

class Documents : public ToolTest {};

} // namespace

TEST_F(Documents, Demo_PrintsWhatTheReadmeShows)
{
    const std::vector<std::string> shown = shapes(readme_block("demo-output"));
    ASSERT_GE(shown.size(), 10u);
    auto demo = lab.start(lab.adapter, {source_dir + "/demo.sh", "--no-build", "--build-dir", RUK_BINARY_DIR});
    EXPECT_TRUE(demo->finish(120000)) << *demo;
    EXPECT_TRUE(demo->exited_with(0)) << *demo;
    const std::vector<std::string> printed = shapes(demo->out());
    EXPECT_NE(std::search(printed.begin(), printed.end(), shown.begin(), shown.end()), printed.end())
        << "the README shows other lines than the demo prints:\n"
        << *demo;
    ASSERT_FALSE(printed.empty());
    const std::regex last("demo: ok: 6 of 6 datagrams received through libruk, 3 of 3 replies sent; half round trip, "
                          "median: libruk [0-9.]+ us, kernel sockets [0-9.]+ us");
    EXPECT_TRUE(std::regex_match(printed.back(), last)) << printed.back();
}

TEST_F(Documents, Demo_WithoutItsPrograms_FailsAndSaysSo)
{
    ScratchDir scratch;
    auto demo = lab.start(lab.adapter, {source_dir + "/demo.sh", "--no-build", "--build-dir", scratch.file("none")});
    EXPECT_TRUE(demo->finish());
    EXPECT_TRUE(demo->exited_with(1)) << *demo;
    EXPECT_EQ(demo->out().rfind("demo: failed: ", 0), 0u) << *demo;
}

TEST_F(Documents, ReadmeExample_CompiledAsSaid_Receives)
{
    ScratchDir scratch;
    const std::string program = readme_block("receive-example");
    ASSERT_NE(program.find("ruk_recvfrom"), std::string::npos);
    std::ofstream(scratch.file("first.c")) << program;
    const std::string as_the_library = sizeof(void *) == 4 ? " -m32" : "";
    lab.run(lab.adapter, std::string(RUK_C_COMPILER) + as_the_library + " -Wall -Wextra -Werror -I" + source_dir +
                             "/libruk -I" + source_dir + "/common " + scratch.file("first.c") +
                             " -L" RUK_BINARY_DIR "/lib -lruk -Wl,-rpath," RUK_BINARY_DIR "/lib -o " +
                             scratch.file("first"));
    KernelSocket peer(lab, lab.peer, 40000);
    auto first = soft({scratch.file("first")});
    std::string line;
    for (int i = 0; i < 200 && line.empty(); i++) {
        peer.send("it works", "10.77.0.1", 5000);
        first->read_line(&line, 100);
    }
    EXPECT_EQ(line, "it works");
    EXPECT_TRUE(first->finish());
    EXPECT_TRUE(first->exited_with(0)) << *first;
}

// The README's own commands, in a directory that looks like the source tree, and with nothing prepared.
TEST_F(Documents, ReadmeExample_RunAsSaid_ReceivesFromTheOtherHost)
{
    std::string commands = readme_block("first-run");
    ASSERT_EQ(commands.rfind("unshare -Urn ", 0), 0u) << commands;
    if (!may_be_root_of_namespaces()) // as it says for root
        commands.replace(0, 13, "unshare -n ");
    ScratchDir tree;
    std::ofstream(tree.file("first.c")) << readme_block("receive-example");
    std::filesystem::create_directory_symlink(source_dir + "/libruk", tree.file("libruk"));
    std::filesystem::create_directory_symlink(source_dir + "/common", tree.file("common"));
    std::filesystem::create_directory_symlink(RUK_BINARY_DIR, tree.file("build"));
    const std::string as_the_library = sizeof(void *) == 4 ? " -m32" : "";
    lab.run(lab.adapter, "cd " + tree.file("") + " && " RUK_C_COMPILER + as_the_library +
                             " -Ilibruk -Icommon first.c -Lbuild/lib -lruk -Wl,-rpath,$PWD/build/lib -o first");
    std::ofstream(tree.file("run.sh")) << commands;
    auto run = lab.start(lab.adapter, {"sh", "-c", "cd " + tree.file("") + " && exec sh run.sh"});
    EXPECT_TRUE(run->finish(60000)) << *run;
    EXPECT_TRUE(run->exited_with(0)) << *run;
    EXPECT_EQ(run->out(), "hello\n") << *run;
}

// Both blocks, in a directory that looks like the source tree: the account is as shown, but for its numbers.
TEST_F(Documents, ReadmeProgram_WatchedAsSaid_ShowsTheAccount)
{
    std::string watched = readme_block("watched"), watching = readme_block("watching");
    ASSERT_EQ(watched.rfind("unshare -Urn ", 0), 0u) << watched;
    ASSERT_NE(watching.find("-n -U --preserve-credentials"), std::string::npos) << watching;
    if (!may_be_root_of_namespaces()) { // as it says for root
        replace_all(watched, "unshare -Urn ", "unshare -n ");
        replace_all(watching, "-n -U --preserve-credentials", "-n");
    }
    ScratchDir tree;
    std::filesystem::create_directory_symlink(RUK_BINARY_DIR, tree.file("build"));
    std::ofstream(tree.file("watched.sh")) << watched;
    std::ofstream(tree.file("watching.sh")) << watching;
    auto receiver = lab.start(lab.adapter, {"sh", "-c", "cd " + tree.file("") + " && exec sh watched.sh"});
    std::string line;
    ASSERT_TRUE(receiver->read_line(&line, 60000)) << *receiver;
    EXPECT_TRUE(std::regex_match(line, std::regex("- 10\\.77\\.0\\.2:[0-9]+ > 10\\.77\\.0\\.1:5000 len 5 \"hello\"")))
        << line;
    for (int i = 0; i < 5; i++) // a second, in which hosts usually send frames of their own
        EXPECT_TRUE(receiver->read_line(&line, 60000)) << *receiver;

    auto watcher = lab.start(lab.adapter, {"sh", "-c", "cd " + tree.file("") + " && exec sh watching.sh"});
    EXPECT_TRUE(watcher->finish(60000)) << *watcher;
    EXPECT_TRUE(watcher->exited_with(0)) << *watcher;
    auto without_numbers = [](const std::string &text) { return std::regex_replace(text, std::regex("[0-9]+"), "N"); };
    std::string shown = without_numbers(readme_block("watching-output"));
    ASSERT_NE(shown.find("board: arrived N = matched N"), std::string::npos) << shown;
    const size_t drops = shown.find("drops:\n\tunmatched"), cut = shown.rfind("...\n"); // the line is long
    ASSERT_NE(drops, std::string::npos) << shown;
    ASSERT_GT(cut, drops) << shown;
    ASSERT_NE(cut, std::string::npos) << shown;
    const std::string account = watcher->out().substr(0, watcher->out().find("received/s"));
    shown.erase(account.find(" + unmatched 0 + ") == std::string::npos ? cut : drops);
    EXPECT_EQ(without_numbers(watcher->out()).rfind(shown, 0), 0u) << *watcher;
    const std::string readme = contents(source_dir + "/README.md");
    EXPECT_LT(readme.find("The first tells"), readme.find("<!-- watching-output -->"));
    EXPECT_GT(readme.find("The second shows"), readme.find("<!-- watching-output -->"));
    EXPECT_NE(watcher->out().find("received/s"), std::string::npos) << *watcher;

    EXPECT_TRUE(receiver->finish(60000)) << *receiver;
    EXPECT_TRUE(receiver->exited_with(0)) << *receiver;
    EXPECT_NE(receiver->out().find("account of the frames in the ring"), std::string::npos) << *receiver;
}

TEST_F(Documents, Demo_WithoutTheRightToMakeNamespaces_NamesWhatIsNeeded)
{
    auto demo = lab.start(lab.adapter, {"setpriv", "--bounding-set", "-sys_admin", "--inh-caps", "-sys_admin",
                                        source_dir + "/demo.sh", "--no-build", "--build-dir", RUK_BINARY_DIR});
    EXPECT_TRUE(demo->finish(60000)) << *demo;
    EXPECT_TRUE(demo->exited_with(1)) << *demo;
    EXPECT_NE(demo->out().find("have the capabilities CAP_SYS_ADMIN, CAP_NET_ADMIN and CAP_NET_RAW\n"),
              std::string::npos)
        << *demo;
}

TEST_F(Documents, Demo_WithTheCapabilitiesThatTheReadmeNames_NeedsEachOfThem)
{
    const std::string readme = contents(source_dir + "/README.md");
    EXPECT_NE(
        readme.find("CAP_SYS_ADMIN and CAP_NET_ADMIN, for network namespaces, and CAP_NET_RAW, for packet sockets"),
        std::string::npos);
    const auto run = [&](const std::string &capabilities) {
        auto demo = lab.start(lab.adapter, {"setpriv", "--bounding-set=-all," + capabilities, "--inh-caps=-all",
                                            source_dir + "/demo.sh", "--no-build", "--build-dir", RUK_BINARY_DIR});
        EXPECT_TRUE(demo->finish(120000)) << *demo;
        return demo;
    };
    auto all = run("+sys_admin,+net_admin,+net_raw");
    EXPECT_TRUE(all->exited_with(0)) << *all;
    auto without = run("+sys_admin,+net_admin");
    EXPECT_TRUE(without->exited_with(1)) << *without;
    EXPECT_NE(without->err().find("run as root, with CAP_NET_RAW, or inside 'unshare -Urn'"), std::string::npos)
        << *without;
}

TEST_F(Documents, Demo_AtItsEnd_NoProcessOfItIsLeft)
{
    // Every process of it has this in its environment.
    const std::string mark = "RUK_TEST_DEMO_OF=" + std::to_string(getpid());
    auto demo =
        lab.start(lab.adapter, {"env", mark, source_dir + "/demo.sh", "--no-build", "--build-dir", RUK_BINARY_DIR});
    const auto marked = [&] {
        std::string processes;
        for (const auto &entry : std::filesystem::directory_iterator("/proc"))
            if (isdigit(entry.path().filename().string()[0]) != 0 &&
                contents(entry.path() / "environ").find(mark) != std::string::npos)
                processes += contents(entry.path() / "cmdline") + '\n';
        return processes;
    };
    EXPECT_TRUE(demo->wait_for_out("== 6.", 120000)) << *demo;
    EXPECT_NE(marked(), "");
    EXPECT_TRUE(demo->finish(120000)) << *demo;
    EXPECT_TRUE(demo->exited_with(0)) << *demo;
    EXPECT_EQ(marked(), "");
}

TEST_F(Documents, Readme_NamesNoFileThatIsNotThere)
{
    const std::string text = contents(source_dir + "/README.md");
    const std::regex link("\\]\\(([^)#:]+)\\)");
    std::set<std::string> targets;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), link); it != std::sregex_iterator(); ++it)
        targets.insert((*it)[1]);
    EXPECT_GE(targets.size(), 2u);
    for (const std::string &target : targets)
        EXPECT_TRUE(std::filesystem::exists(source_dir + "/" + target)) << target;
}
