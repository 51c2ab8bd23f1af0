#include "sweep.h"
#include "capture.h"
#include "child.h"
#include "ruk_core.h"

#include <algorithm>
#include <cstdlib>
#include <errno.h>
#include <sys/mman.h>
#include <utility>

namespace fault {

namespace {

constexpr size_t tag_block_bytes = RUK_TAG_BLOCK * sizeof(struct ruk__tag_entry);
constexpr size_t queue_limit = 2 * RUK_TAG_MAX_BLOCKS * RUK_TAG_BLOCK; /* a queue that is longer goes round */
constexpr int came_back = 99; /* status of a child that its operation has not ended */

const char *const lock_held = "endpoint lock held";
const char *const tag_entry_in_use = "tag entry on the unicast queue";
const char *const tag_entry_twice = "tag entry on the unicast queue and free";
const char *const an_interface_list = "interface list not released";
const char *const a_tag_block = "tag block";
const char *const a_filter = "filter in the adapter";

/* ------------------------------------------------------------------ what there is */

/* Where the entries of an endpoint's tags are, but for those that are just free. */
void add_tags(struct ruk__ep *rep, Difference *state)
{
    std::map<const struct ruk__tag_entry *, std::string> places;
    auto walk = [&](struct ruk__tag_queue *queue, const std::string &where) {
        size_t n = 0;
        for (struct ruk__tag_entry *e = TAILQ_FIRST(queue); e && n < queue_limit; e = TAILQ_NEXT(e, tage_link), n++) {
            std::string &place = places[e];
            place += (place.empty() ? "" : " and ") + where;
        }
    };
    walk(&rep->rep_tag_uniq, "on the unicast queue");
    walk(&rep->rep_tag_delayq, "delayed");
    struct ruk__channel *ch;
    TAILQ_FOREACH(ch, &rep->rep_chanq, ch_link)
    walk(&ch->ch_tag_multiq, "on a channel's group queue");
    walk(&rep->rep_tag_filterq, "free");
    for (int b = 0; b < rep->rep_tag_cnt; b++) {
        for (int i = 0; i < RUK_TAG_BLOCK; i++) {
            const auto at = places.find(&rep->rep_tag_table[b][i]);
            if (at == places.end())
                (*state)["tag entry on no queue"]++;
            else if (at->second != "free")
                (*state)["tag entry " + at->second]++;
            if (rep->rep_tag_table[b][i].tage_channel)
                (*state)["tag entry that knows a channel"]++;
        }
    }
}

void add_channels(struct ruk__ep *rep, Difference *state)
{
    struct ruk__channel *ch;
    TAILQ_FOREACH(ch, &rep->rep_chanq, ch_link)
    {
        (*state)[std::string("channel") + (ch->ch_uni_entry ? ", own entry" : "") +
                 (ch->ch_bc_entry ? ", broadcasts" : "") + (ch->ch_deferred_uni_entry ? ", heir" : "")]++;
        for (struct ruk__send_queue &queue : ch->ch_sendhandleq) {
            struct ruk__send *dhs;
            TAILQ_FOREACH(dhs, &queue, dhs_link)
            (*state)["send handle"]++;
        }
        struct ruk__mreq_blocked *blocked;
        TAILQ_FOREACH(blocked, &ch->ch_mreq_blocked, mreq_link)
        (*state)["blocked source"]++;
    }
}

bool is_held(pthread_mutex_t *lock)
{
    if (!lock || pthread_mutex_trylock(lock) != 0)
        return lock != nullptr;
    pthread_mutex_unlock(lock);
    return false;
}

void add_endpoint(struct ruk__ep *rep, Difference *state)
{
    (*state)["endpoint in state " + std::to_string(rep->rep_state)]++;
    if (is_held(rep->rep_lockp))
        (*state)[lock_held]++;
    if (is_held(rep->rep_rx_lockp))
        (*state)["receive lock held"]++;
    if (rep->rep_inuse != 0)
        (*state)["receiver inside"] += static_cast<int>(rep->rep_inuse);
    if (rep->rep_tag_cnt != 0)
        (*state)[a_tag_block] += rep->rep_tag_cnt;
    struct ruk__request *req;
    STAILQ_FOREACH(req, &rep->rep_sreq_inflightq, req_link)
    (*state)["request in flight"]++;
    add_tags(rep, state);
    add_channels(rep, state);
}

/* All that the process has of the host, and the endpoint of itself: how many of what. */
Difference state_of(World &w)
{
    Difference state;
    const Holdings holdings = Holdings::without_mappings();
    for (const std::string &line : holdings.descriptors)
        state["descriptor " + line]++;
    for (const std::string &line : holdings.memberships)
        state["membership " + line]++;
    state["thread"] += static_cast<int>(holdings.threads);
    for (const auto &[at, size] : w.seam.blocks())
        state[memory_of(size)]++;
    for (const auto &[at, size] : w.seam.mappings())
        state["mapping of " + std::to_string(size) + " bytes"]++;
    for (uint64_t claimed = softnic_claimed(w.wire.nic, 0); claimed != 0; claimed &= claimed - 1)
        state["endpoint claimed"]++;
    state[a_filter] += static_cast<int>(w.seam.filters());
    state[an_interface_list] += static_cast<int>(w.wire.host.unreleased_lists());
    if (w.dev)
        add_endpoint(w.dev, &state);
    return state;
}

Difference operator-(Difference now, const Difference &before)
{
    for (const auto &[what, n] : before)
        now[what] -= n;
    std::erase_if(now, [](const auto &entry) { return entry.second == 0; });
    return now;
}

std::string to_string(const Difference &difference)
{
    std::string text;
    for (const auto &[what, n] : difference) {
        text += std::string(n > 0 ? "  left: " : "  gone: ") + what;
        text += std::abs(n) > 1 ? ", " + std::to_string(std::abs(n)) + " of them\n" : "\n";
    }
    return text;
}

/* ------------------------------------------------------------------ what is right */

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

/* ------------------------------------------------------------------ the sweep */

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
        if (op_.leaves & ~used_)
            found("nothing is left of what may be: " + std::to_string(op_.leaves & ~used_));
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

    /* Takes up to n of what may stay out of the difference, and notes that the exception is of use. */
    void forgive(Difference *left, unsigned exception, const std::string &what, int n = 1)
    {
        const auto at = left->find(what);
        if (!(op_.leaves & exception) || n == 0 || at == left->end() || at->second < 0)
            return;
        used_ |= exception;
        at->second -= std::min(n, at->second);
        if (at->second == 0)
            left->erase(at);
    }

    /* Of the calls, those for the host's interfaces that have given a list. */
    static int lists_read(const std::vector<Call> &calls)
    {
        return static_cast<int>(std::count_if(calls.begin(), calls.end(),
                                              [](const Call &c) { return c.label == "getifaddrs" && !c.failed; }));
    }

    void forgive_kept_filters(World &w, Difference *left)
    {
        forgive(left, kept_filter, a_filter, static_cast<int>(w.seam.filters_kept()));
    }

    /*
     * An entry that is on the unicast queue and free has one link for both: entries that follow it on one of them are
     * on the other as well, or on neither. For as long as the endpoint lives nothing is said of these two places.
     */
    void leave_out_damage(Difference *difference) const
    {
        if (damaged_) {
            difference->erase(tag_entry_in_use);
            difference->erase(tag_entry_twice);
        }
    }

    void nothing_left(World &w, const Difference &before, const char *when)
    {
        Difference left = state_of(w) - before;
        leave_out_damage(&left);
        forgive_kept_filters(w, &left);
        forgive(&left, endpoint_lock, lock_held);
        forgive(&left, refused_filter_entry, tag_entry_twice);
        forgive(&left, interface_list, an_interface_list, w.lists_read);
        forgive(&left, closing_summary, memory_of(summary_bytes));
        if (left.contains(a_tag_block)) {
            forgive(&left, tag_block, a_tag_block);
            forgive(&left, tag_block, memory_of(tag_block_bytes));
        }
        if (!left.empty())
            found(std::string(when) + ":\n" + to_string(left));
    }

    /* What an undisturbed success leaves, and what the failures that it does without take from that. */
    void as_undisturbed(World &w, const Difference &before, const std::vector<Call> &calls)
    {
        Difference change = state_of(w) - before;
        if (op_.leaves & interface_list)
            change[an_interface_list] -= w.lists_read;
        Difference expected = undisturbed_;
        for (size_t i = 0; i < calls.size(); i++) {
            const Answer *answer = calls[i].failed ? answer_for(op_, calls, i) : nullptr;
            if (!answer)
                continue;
            for (const auto &[what, n] : answer->without) /* what is not there cannot be gone */
                expected[what] = n < 0 ? std::max(expected[what] + n, std::min(expected[what], 0)) : expected[what] + n;
        }
        Difference wrong = change - expected;
        leave_out_damage(&wrong);
        forgive_kept_filters(w, &wrong);
        if (!wrong.empty())
            found("not as an undisturbed one:\n" + to_string(wrong));
    }

    /* A lock that is kept, rightly or not, would stop all that comes. */
    static void free_lock(World &w)
    {
        if (w.dev && is_held(w.dev->rep_lockp))
            pthread_mutex_unlock(w.dev->rep_lockp);
    }

    void try_plan(const Plan &plan, const std::vector<Outcome> &right)
    {
        {
            World w(op_.board);
            damaged_ = false;
            const Difference bare = state_of(w);
            if (op_.prepare)
                op_.prepare(w);
            const Difference before = state_of(w);

            /* 1. The failure: the result, and nothing left; of a failure that it does without, what there is then. */
            w.seam.arm(plan);
            int error = 0;
            const int rc = call(w, &error);
            const std::vector<Call> calls = w.seam.disarm();
            w.lists_read = lists_read(calls);
            bool done = rc == op_.success;
            if (plan.from == 0) {
                calls_ = calls;
                if (!done)
                    found("result " + std::to_string(rc) + " where nothing failed");
                note_undisturbed(w, before);
            } else {
                if (w.seam.failed() == 0)
                    found("the call was not made");
                judge({Outcome::returns, rc}, right);
            }
            if (op_.stores_errno && rc > 0 && error != rc)
                found("errno is " + std::to_string(error));
            const unsigned used = std::exchange(used_, 0);
            if (!done || (op_.success != 0 && !op_.closes))
                nothing_left(w, before, "not as before");
            else
                as_undisturbed(w, before, calls);
            damaged_ = used_ & refused_filter_entry;
            used_ |= used;
            free_lock(w);

            /* 2. Again; after a success its undoing. */
            if (!done) {
                w.seam.arm({});
                done = try_again(w);
                w.lists_read += lists_read(w.seam.disarm());
                if (done && op_.success == 0)
                    as_undisturbed(w, before, {});
            }
            if (done && op_.undo) {
                op_.undo(w);
                nothing_left(w, before, "undone, not as before");
            }

            /* 3. The end of all. */
            release(w, bare);
        }
        const Holdings after = Holdings::now();
        if (!(after == outside_))
            found("in the end:\n" + after.minus(outside_));
        outside_ = after;
    }

    void note_undisturbed(World &w, const Difference &before)
    {
        undisturbed_ = state_of(w) - before;
        if (op_.leaves & interface_list) {
            undisturbed_[an_interface_list] -= w.lists_read;
            if (undisturbed_[an_interface_list] == 0)
                undisturbed_.erase(an_interface_list);
        }
    }

    bool try_again(World &w)
    {
        int error;
        const int rc = call(w, &error);
        if (rc != op_.success)
            found("tried again: result " + std::to_string(rc));
        return rc == op_.success;
    }

    void release(World &w, const Difference &bare)
    {
        w.release();
        Difference left = state_of(w) - bare;
        forgive(&left, closing_summary, memory_of(summary_bytes));
        forgive(&left, raw_handle, "descriptor pipe:");
        forgive(&left, interface_list, an_interface_list, w.lists_read);
        if (!left.empty())
            found("after the end:\n" + to_string(left));
        if (op_.leaves & raw_handle)
            w.close_left_handle();
    }

    const Operation &op_;
    Holdings outside_ = Holdings::now(); /* without a world */
    std::string where_;
    std::vector<Call> calls_;
    Difference undisturbed_; /* what a success leaves */
    unsigned used_ = 0;      /* of the exceptions */
    bool damaged_ = false;   /* refused_filter_entry has been of use to this world */
    Report report_;
};

} // namespace

Report sweep(const Operation &op)
{
    const test_support::StreamCapture quiet; /* the library tells of most of it */
    return Sweep(op).run();
}

} // namespace fault
