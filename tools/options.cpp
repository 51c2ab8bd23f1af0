#include "options.h"

#include "common.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <iostream>

namespace tools {

namespace {

/* Has the option take what the whole of its argument is as a Number in the range, and nothing else. */
template <typename Number> void take_only(CLI::Option *option, Number least, Number most, const std::string &what)
{
    auto check = [=](std::string &text) -> std::string {
        Number value{};
        const char *const end = text.data() + text.size();
        auto [stop, error] = std::from_chars(text.data(), end, value);
        /* Infinity and what is not a number are in no range. */
        if (error != std::errc{} || stop != end || text[0] == '-' || !(value >= least && value <= most))
            return fmt::format("'{}' is not {}", text, what);
        text = fmt::format("{}", value); /* without leading zeros, which would mean another base */
        return {};
    };
    option->transform(CLI::Validator(check, ""));
}

} // namespace

/* ------------------------------------------------------------------ one option */

Option Option::type_name(const char *text) const
{
    option_->type_name(text);
    return *this;
}

Option Option::required() const
{
    option_->required();
    return *this;
}

Option Option::excludes(Option other) const
{
    option_->excludes(other.option_);
    return *this;
}

Option Option::repeatable() const
{
    option_->allow_extra_args(false);
    return *this;
}

Option Option::whole(uint64_t least, uint64_t most) const
{
    const bool bounded = most != std::numeric_limits<uint64_t>::max();
    take_only(option_, least, most,
              bounded ? fmt::format("a whole number from {} to {}", least, most) : std::string("a whole number"));
    return *this;
}

Option Option::number(double least, double most) const
{
    take_only(option_, least, most, fmt::format("a number from {:.15g} to {:.15g}", least, most));
    return *this;
}

Option Option::seconds() const { return number(0, 1e9); }

Option Option::port() const { return whole(0, 65535); }

/* ------------------------------------------------------------------ several */

Option CommandLine::flag(const char *names, bool &value, const char *help) const
{
    return Option(app_->add_flag(names, value, help));
}

template <typename Value> Option CommandLine::option(const char *names, Value &value, const std::string &help) const
{
    return Option(app_->add_option(names, value, help));
}
template Option CommandLine::option(const char *, int &, const std::string &) const;
template Option CommandLine::option(const char *, uint16_t &, const std::string &) const;
template Option CommandLine::option(const char *, uint32_t &, const std::string &) const;
template Option CommandLine::option(const char *, uint64_t &, const std::string &) const;
template Option CommandLine::option(const char *, double &, const std::string &) const;
template Option CommandLine::option(const char *, std::string &, const std::string &) const;
template Option CommandLine::option(const char *, std::optional<int> &, const std::string &) const;
template Option CommandLine::option(const char *, std::optional<uint32_t> &, const std::string &) const;
template Option CommandLine::option(const char *, std::optional<uint64_t> &, const std::string &) const;
template Option CommandLine::option(const char *, std::optional<double> &, const std::string &) const;
template Option CommandLine::option(const char *, std::optional<std::string> &, const std::string &) const;
template Option CommandLine::option(const char *, std::vector<uint16_t> &, const std::string &) const;
template Option CommandLine::option(const char *, std::vector<std::string> &, const std::string &) const;

Option CommandLine::choice(const char *names, const std::vector<std::string> &words, const char *standard,
                           const std::function<void(const std::string &)> &taken, const char *help) const
{
    return Option(
        app_->add_option_function<std::string>(names, taken, help)->check(CLI::IsMember(words))->default_str(standard));
}

CommandLine CommandLine::group(const char *name, const char *help, size_t least, size_t most) const
{
    CLI::Option_group *options = app_->add_option_group(name, help);
    options->require_option(least, most);
    return CommandLine(options);
}

CommandLine CommandLine::command(const char *name, const char *help) const
{
    app_->require_subcommand(1);
    return CommandLine(app_->add_subcommand(name, help));
}

bool CommandLine::given() const { return app_->parsed(); }

void CommandLine::footer(const char *text) const { app_->footer(text); }

/* ------------------------------------------------------------------ a program */

Program::Program(const char *description, const char *name)
    : CommandLine(nullptr), owned_(std::make_unique<CLI::App>(description, name))
{
    app_ = owned_.get();
    program_name = name;
}

Program::~Program() = default;

int Program::run(int argc, char **argv, const std::function<int()> &body)
{
    auto add_version = [](CLI::App &to) {
        to.set_version_flag("--version", program_name + " " RUK_VERSION, "Print the version and exit");
    };
    add_version(*app_);
    for (CLI::App *command : app_->get_subcommands([](CLI::App *sub) { return !sub->get_name().empty(); }))
        add_version(*command);
    app_->failure_message([](const CLI::App *, const CLI::Error &e) {
        return fmt::format("{0}: {1}\n{0}: --help shows what it takes\n", program_name, e.what());
    });
    try {
        app_->parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        /* --help and --version arrive here too, with code 0. */
        const int code = app_->exit(e);
        if (!std::cout.flush() || fflush(stdout) != 0) {
            note("cannot write to standard output: " + errno_text(errno));
            return exit_error;
        }
        return code == 0 ? exit_ok : exit_error;
    }
    try {
        return body();
    } catch (const std::exception &e) {
        fflush(stdout);
        note(e.what());
        return exit_error;
    }
}

} // namespace tools
