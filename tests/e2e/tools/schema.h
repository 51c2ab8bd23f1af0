/*
 * What the programs print with --json, against the schemas of docs/json.
 */
#pragma once

#include "tool_lab.h"

#include <cstdio>

namespace tool_test {

/* Expects the text, one object a line or one in all, to be as docs/json/NAME.json has it. */
inline void expect_schema(const std::string &name, const std::string &text)
{
    ScratchDir scratch;
    const std::string file = scratch.file("printed");
    std::ofstream(file, std::ios::binary) << text;
    const std::string command =
        "python3 -B '" RUK_SOURCE_DIR "/scripts/json_schemas.py' validate " + name + " < " + file + " 2>&1";
    FILE *check = popen(command.c_str(), "r");
    ASSERT_NE(check, nullptr);
    std::string said;
    char buffer[4096];
    while (const size_t n = fread(buffer, 1, sizeof buffer, check))
        said.append(buffer, n);
    EXPECT_EQ(pclose(check), 0) << text;
    EXPECT_EQ(said, "");
}

} // namespace tool_test
