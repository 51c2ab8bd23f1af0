/*
 * Command lines of the ruk-* programs: what they take, its description in --help, and what becomes of a program that is
 * called wrongly or fails. The option library's headers take the compiler longer than most programs do: options.cpp
 * alone includes them.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace tools {

/* One option; a handle, which is copied freely. Each call gives the option itself, for chaining. */
class Option {
public:
    explicit Option(CLI::Option *option) : option_(option) {}

    Option type_name(const char *text) const; /* stands for its argument in --help */
    Option required() const;
    Option excludes(Option other) const;
    Option repeatable() const; /* one argument each time, not several at once */

    /*
     * What it takes, in decimal digits: no sign, no other base, nothing that is not a finite number; the bounds are
     * part of the range.
     */
    Option whole(uint64_t least = 0, uint64_t most = std::numeric_limits<uint64_t>::max()) const;
    Option number(double least, double most) const;
    Option seconds() const; /* none to many years */
    Option port() const;

private:
    CLI::Option *option_;
};

/* The options of a program, of one of its commands, or of a group; a handle, too. */
class CommandLine {
public:
    Option flag(const char *names, bool &value, const char *help) const;
    /* Of the types that options.cpp names; an optional one stays without a value when it is not given. */
    template <typename Value> Option option(const char *names, Value &value, const std::string &help) const;
    /* One of some words; taken() is called with the one that was given. */
    Option choice(const char *names, const std::vector<std::string> &words, const char *standard,
                  const std::function<void(const std::string &)> &taken, const char *help) const;

    /* A paragraph of its own in --help, of which least to most options may be given. */
    CommandLine group(const char *name, const char *help, size_t least, size_t most) const;

    /* One of several commands; it takes over the footer that is there, and the program then needs one of them. */
    CommandLine command(const char *name, const char *help) const;
    bool given() const; /* after parsing: whether this command was */

    void footer(const char *text) const;

protected:
    explicit CommandLine(CLI::App *app) : app_(app) {}
    CLI::App *app_;
};

class Program : public CommandLine {
public:
    Program(const char *description, const char *name);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    /* Parses the arguments, runs body and turns exceptions into messages and statuses. Adds --version. */
    int run(int argc, char **argv, const std::function<int()> &body);

private:
    std::unique_ptr<CLI::App> owned_;
};

} // namespace tools
