/*
 * Bytes that the process writes to standard output and standard error, stdio or not.
 *
 *     StreamCapture streams;
 *     ruk_dump_stats(dev);
 *     EXPECT_EQ(streams.out(), "...");
 *
 * Captures nest. What gtest itself prints meanwhile is captured as well, so keep the scope short.
 */
#pragma once

#include <stdio.h>
#include <string>

namespace test_support {

class StreamCapture {
public:
    StreamCapture();
    ~StreamCapture(); /* the streams are as before; what was captured is dropped */
    StreamCapture(const StreamCapture &) = delete;
    StreamCapture &operator=(const StreamCapture &) = delete;

    std::string out(); /* all so far */
    std::string err();
    void clear();

private:
    int file_[2];  /* what descriptors 1 and 2 now write to */
    int saved_[2]; /* where they wrote before */
};

/* All bytes of a file, wherever its offset stands. */
std::string file_contents(int fd);

} // namespace test_support
