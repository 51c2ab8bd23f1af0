// ruk-accept where the probes that were chosen need what is not there.
#include "schema.h"
#include "tool_lab.h"

using namespace tool_test;
using nlohmann::json;

namespace {

class AcceptUnprobed : public ToolTest {
protected:
    void SetUp() override
    {
        ToolTest::SetUp();
        if (IsSkipped())
            return;
        peer_ = lab.start(lab.peer, {bin("ruk-accept"), "peer", "-a", "10.77.0.2"});
        ASSERT_TRUE(peer_->wait_for_err("serving")) << *peer_;
    }

    // The run of these probes alone; there is no interface of a VLAN.
    std::unique_ptr<test_support::Program> run(const std::vector<std::string> &options)
    {
        std::vector<std::string> command = {"ruk-accept", "run", "-i", "oxel0", "10.77.0.2", "--minutes", "0.02"};
        command.insert(command.end(), options.begin(), options.end());
        auto program = soft(command);
        EXPECT_TRUE(program->finish(120000)) << *program;
        return program;
    }

    ScratchDir scratch;

private:
    std::unique_ptr<test_support::Program> peer_;
};

} // namespace

TEST_F(AcceptUnprobed, OnlyProbeLacksSomething_ResultIsNothingProbed_StatusOne)
{
    const std::string file = scratch.file("report.json");
    auto program = run({"--only", "vlan", "--json", "-o", file});
    EXPECT_TRUE(program->exited_with(1)) << *program;
    expect_schema("ruk-accept", program->out());
    const json report = parse(program->out());
    EXPECT_EQ(report["result"], "nothing probed");
    EXPECT_EQ(report["probes"].size(), 1u);
    EXPECT_EQ(report["probes"][0]["result"], "not probed");
    EXPECT_EQ(parse(contents(file)), report);
}

TEST_F(AcceptUnprobed, OnlyProbeLacksSomething_InText_TheLastLineTells)
{
    auto program = run({"--only", "vlan"});
    EXPECT_TRUE(program->exited_with(1)) << *program;
    EXPECT_EQ(program->out(),
              "not probed   vlan              assumed: datagrams reach the channels of their own VLAN alone; seen: {}; "
              "the adapter has no interface of another VLAN than oxel0's with an address (oxel0.5 would be one)\n"
              "nothing probed\n");
}

TEST_F(AcceptUnprobed, OneProbeLacksSomethingAndOneRan_ItsResultCounts)
{
    auto program = run({"--only", "vlan", "--only", "group", "--json"});
    EXPECT_TRUE(program->exited_with(0)) << *program;
    expect_schema("ruk-accept", program->out());
    const json report = parse(program->out());
    EXPECT_EQ(report["result"], "as expected");
    EXPECT_EQ(report["probes"].size(), 2u);
}
