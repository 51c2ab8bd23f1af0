#include "sweep.h"
#include "capture.h"
#include "child.h"
#include "ruk_core.h"

#include <algorithm>
#include <errno.h>
#include <sys/mman.h>

namespace fault {

namespace {

constexpr size_t summary_bytes = 512;
constexpr size_t tag_block_bytes = RUK_TAG_BLOCK * sizeof(struct ruk__tag_entry);
constexpr int came_back = 99; /* status of a child that its operation has not ended */

using Blocks = std::map<void *, size_t>;

/* The block of bytes that one has more than the other. */
std::string difference(const char *what, const Blocks &now, const Blocks &before)
{
    std::string text;
    for (const auto &[at, size] : now)
        if (before.find(at) == before.end())
            text += std::string("  left: ") + what + " of " + std::to_string(size) + " bytes\n";
    for (const auto &[at, size] : before)
        if (now.find(at) == now.end())
            text += std::string("  gone: ") + what + " of " + std::to_string(size) + " bytes\n";
    return text;
}

/* Without those that may stay. */
Blocks but_for(Blocks now, const Blocks &before, size_t size, size_t howmany)
{
    for (auto it = now.begin(); it != now.end() && howmany != 0;) {
        if (it->second == size && before.find(it->first) == before.end()) {
            it = now.erase(it);
            howmany--;
        } else {
            ++it;
        }
    }
    return now;
}

/* All that a failed operation must leave as it was. */
struct State {
    Holdings holdings;
    Blocks blocks, mappings;
    uint64_t claimed;
    size_t lists;

    explicit State(World &w)
        : holdings(Holdings::without_mappings()), blocks(w.seam.blocks()), mappings(w.seam.mappings()),
          claimed(softnic_claimed(w.wire.nic, 0)), lists(w.wire.host.unreleased_lists())
    {}
};

std::string changes(const Operation &op, const State &before, const State &now)
{
    std::string text = now.holdings.minus(before.holdings);
    const Blocks blocks = op.grows_tags ? but_for(now.blocks, before.blocks, tag_block_bytes, 1) : now.blocks;
    text += difference("memory", blocks, before.blocks);
    text += difference("mapping", now.mappings, before.mappings);
    if (now.claimed != before.claimed)
        text += "  endpoints claimed: " + std::to_string(now.claimed) + "\n";
    if (now.lists != before.lists && !(op.leaves & interface_list))
        text += "  interface lists not released: " + std::to_string(now.lists) + "\n";
    return text;
}

/* The rule for a call of the list. */
const Answer *answer_for(const Operation &op, const std::vector<Call> &calls, size_t index)
{
    unsigned which = 0;
    for (size_t i = 0; i <= index; i++)
        which += calls[i].label == calls[index].label;
    for (const Answer &answer : op.answers)
        if (answer.label == calls[index].label && (answer.which == 0 || answer.which == which))
            return &answer;
    return nullptr;
}

Outcome outcome_of(const Operation &op, const std::vector<Call> &calls, size_t index, int error, bool for_good)
{
    const Answer *answer = answer_for(op, calls, index);
    const Rule rule = !answer ? its_error : for_good && answer->always ? answer->always : answer->once;
    Outcome outcome = rule(error);
    if (outcome.good())
        outcome.code = op.success;
    return outcome;
}

/* The outcomes that are right for a plan. */
std::vector<Outcome> expected(const Operation &op, const std::vector<Call> &calls, const Plan &plan)
{
    const size_t first = plan.from - 1;
    if (plan.then != Plan::everything)
        return {outcome_of(op, calls, first, plan.error, plan.then == Plan::its_kind)};
    /* Whichever of the calls it comes to; the first that is not made up for ends it. */
    std::vector<Outcome> outcomes;
    const Outcome success = {Outcome::returns, op.success};
    for (size_t i = first; i < calls.size(); i++) {
        const int error = calls[i].kind == calls[first].kind ? plan.error : errors_of(calls[i]).front();
        const Outcome outcome = outcome_of(op, calls, i, error, true);
        if (!(outcome == success))
            outcomes.push_back(outcome);
    }
    if (outcomes.empty())
        return {success};
    for (int code : op.also)
        outcomes.push_back({Outcome::returns, code});
    return outcomes;
}

class Sweep {
public:
    explicit Sweep(const Operation &op) : op_(op) {}

    Report run()
    {
        try_plan(Plan(), {}); /* all goes well: the calls */
        report_.calls = static_cast<unsigned>(calls_.size());
        for (const Answer &answer : op_.answers)
            if (!is_of_use(answer))
                found("the rule for \"" + answer.label + "\" " + std::to_string(answer.which) + " fits no call");
        for (unsigned n = 1; n <= report_.calls; n++)
            for (int error : errors_of(calls_[n - 1]))
                for (auto then : {Plan::once, Plan::its_kind, Plan::everything})
                    fail({n, error, then});
        return report_;
    }

private:
    bool is_of_use(const Answer &answer) const
    {
        for (size_t i = 0; i < calls_.size(); i++)
            if (answer_for(op_, calls_, i) == &answer)
                return true;
        return false;
    }

    void found(const std::string &what) { report_.findings.push_back(op_.name + where_ + ": " + what); }

    void fail(const Plan &plan)
    {
        const std::vector<Outcome> right = expected(op_, calls_, plan);
        const char *then = plan.then == Plan::once ? "" : plan.then == Plan::its_kind ? ", for good" : ", and all else";
        where_ = ", call " + std::to_string(plan.from) + " (" + calls_[plan.from - 1].label + ") " +
                 strerrorname_np(plan.error) + then;
        report_.failures++;
        const bool ends = std::any_of(right.begin(), right.end(), [](Outcome o) { return o.how != Outcome::returns; });
        if (ends)
            try_in_child(plan, right);
        else
            try_plan(plan, right);
        where_.clear();
    }

    void judge(const Outcome &outcome, const std::vector<Outcome> &right)
    {
        if (std::find(right.begin(), right.end(), outcome) != right.end())
            return;
        std::string text = to_string(outcome) + ", should be";
        for (const Outcome &o : right)
            text += " " + to_string(o);
        found(text);
    }

    int call(World &w, int *error)
    {
        return w.seam.library([&] {
            errno = 0;
            const int rc = op_.run(w);
            *error = errno;
            return rc;
        });
    }

    /* An operation that is to end the process: a copy of it, which had better not come back. */
    void try_in_child(const Plan &plan, const std::vector<Outcome> &right)
    {
        int *result = static_cast<int *>(
            mmap(nullptr, sizeof *result, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        const test_support::ChildResult child = test_support::run_in_child([&] {
            World w(op_.board);
            if (op_.prepare)
                op_.prepare(w);
            w.seam.arm(plan);
            int error;
            *result = call(w, &error);
            return came_back;
        });
        const int rc = *result;
        munmap(result, sizeof *result);
        if (child.signal == SIGABRT)
            judge({Outcome::aborts, 0}, right);
        else if (child.signal == 0 && child.exit_status != came_back)
            judge({Outcome::exits, child.exit_status}, right);
        else
            judge({Outcome::returns, rc}, right);
    }

    void try_plan(const Plan &plan, const std::vector<Outcome> &right)
    {
        {
            World w(op_.board);
            if (op_.prepare)
                op_.prepare(w);
            const State before(w);

            /* 1. The failure: the result, and nothing left. */
            w.seam.arm(plan);
            int error = 0;
            const int rc = call(w, &error);
            const std::vector<Call> calls = w.seam.disarm();
            bool done = rc == op_.success;
            if (plan.from == 0) {
                calls_ = calls;
                if (!done)
                    found("result " + std::to_string(rc) + " where nothing failed");
            } else {
                if (w.seam.failed() == 0)
                    found("the call was not made");
                judge({Outcome::returns, rc}, right);
            }
            if (op_.stores_errno && rc > 0 && error != rc)
                found("errno is " + std::to_string(error));
            if (!done) {
                const std::string left = changes(op_, before, State(w));
                if (!left.empty())
                    found("not as before:\n" + left);
                done = try_again(w);
            }

            /* 2. After the success, and the endpoint's end. */
            if (done && op_.undo)
                op_.undo(w);
            release(w);
        }
        const Holdings after = Holdings::now();
        if (!(after == outside_))
            found("in the end:\n" + after.minus(outside_));
        outside_ = after;
    }

    bool try_again(World &w)
    {
        int error;
        const int rc = call(w, &error);
        if (rc != op_.success)
            found("tried again: result " + std::to_string(rc));
        return rc == op_.success;
    }

    void release(World &w)
    {
        w.release();
        const Blocks blocks =
            op_.leaves & closing_summary ? but_for(w.seam.blocks(), {}, summary_bytes, 2) : w.seam.blocks();
        const std::string left = difference("memory", blocks, {}) + difference("mapping", w.seam.mappings(), {});
        if (!left.empty())
            found("after the end:\n" + left);
        if (softnic_claimed(w.wire.nic, 0) != 0)
            found("an endpoint is still claimed");
    }

    const Operation &op_;
    Holdings outside_ = Holdings::now(); /* without a world */
    std::string where_;
    std::vector<Call> calls_;
    Report report_;
};

} // namespace

Report sweep(const Operation &op)
{
    const test_support::StreamCapture quiet; /* the library tells of most of it */
    return Sweep(op).run();
}

} // namespace fault
