#include "tap_source.h"

namespace softnic {
namespace {

class TapSource : public RequestSource {
public:
    explicit TapSource(std::unique_ptr<RequestTap> tap) : tap_(std::move(tap)) {}
    bool pop(nuv_ureq_t *request) override { return tap_->pop(request); }
    void detach() override { tap_->detach(); }
    Idle arm_idle() override
    {
        switch (tap_->arm_idle()) {
        case TapIdle::work:
            return Idle::Work;
        case TapIdle::armed:
            return Idle::Armed;
        default:
            return Idle::Timed;
        }
    }
    void disarm_idle() override { tap_->disarm_idle(); }
    int wake_fd() const override { return tap_->wake_fd(); }
    uint64_t lost() const override
    {
        const TapCounters counters = tap_->counters();
        return counters.async_hits + counters.overflows;
    }

private:
    std::unique_ptr<RequestTap> tap_;
};

} // namespace

MakeRequestSource tap_source(TapMode preferred)
{
    return [preferred](void *app, void *alias, size_t len, const char *name) -> std::unique_ptr<RequestSource> {
        std::unique_ptr<RequestTap> tap = RequestTap::create(preferred, app, alias, len, name);
        if (!tap)
            return nullptr;
        return std::make_unique<TapSource>(std::move(tap));
    };
}

} // namespace softnic
