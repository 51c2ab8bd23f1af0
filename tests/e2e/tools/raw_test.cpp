// A raw endpoint over a real interface: frames to and from a packet socket of the other host.
#include "tool_lab.h"

using namespace tool_test;

class RawProgram : public ToolTest {};

TEST_F(RawProgram, FrameSentAndFrameReceived_AsTheyAre_ContextIsThePointer)
{
    std::string frame(reinterpret_cast<const char *>(lab.peer.mac), 6);
    frame.append(reinterpret_cast<const char *>(lab.adapter.mac), 6);
    frame += "\x88\xb5";
    for (int i = 0; i < 300; i++)
        frame += static_cast<char>(i * 7);
    ScratchDir scratch;
    std::ofstream(scratch.file("frame"), std::ios::binary) << frame;

    const int wire = lab.packet_socket(lab.peer);
    auto program = lab.start(lab.adapter, {"sh", "-c",
                                           bin("rukrun") + " --soft=oxel0 -- " RUK_BINARY_DIR "/tests/raw_program <" +
                                               scratch.file("frame")});
    std::string line;
    ASSERT_TRUE(program->read_line(&line)) << *program;
    EXPECT_EQ(line, "sent, context as given, ticks there");
    std::string arrived;
    while (arrived.substr(0, 14) != frame.substr(0, 14)) { // other frames of the host may come too
        pollfd waiting = {wire, POLLIN, 0};
        ASSERT_EQ(poll(&waiting, 1, 10000), 1);
        char buffer[2048];
        const ssize_t n = recv(wire, buffer, sizeof buffer, 0);
        ASSERT_GT(n, 0);
        arrived.assign(buffer, static_cast<size_t>(n));
    }
    close(wire);
    EXPECT_EQ(arrived, frame);

    put_frame(0x88b5, "by the other host");
    ASSERT_TRUE(program->read_line(&line)) << *program;
    EXPECT_EQ(line, "received by the other host");
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}
