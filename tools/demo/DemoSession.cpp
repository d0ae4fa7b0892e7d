#include "DemoSession.h"

#include <cstdio>
#include <mutex>
#include <stdexcept>

namespace plenk::demo {

namespace {
// The library's diagnostics, one line each on standard error (from any thread).
class StandardErrorLines final : public LogSink {
public:
    void write(std::string_view text) override {
        std::lock_guard lock(mutex_);
        while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
        std::fprintf(stderr, "plenk-demo: library: %.*s\n", static_cast<int>(text.size()), text.data());
    }

private:
    std::mutex mutex_;
};
}  // namespace

DemoSession::DemoSession(const DemoOptions& options) : queue_(gtk::GLibMainQueue::create()) {
    const bool sim = options.sim || options.backend == "sim";
    if (options.sim && !options.backend.empty() && options.backend != "sim") {
        throw std::invalid_argument(
            "--sim runs on the simulated scale; it cannot be combined with --backend " + options.backend);
    }
    const std::shared_ptr<LogSink> log =
        options.verbose ? std::make_shared<StandardErrorLines>() : LogSink::discard();
    if (sim) {
        Simulator::Options world;
        world.clock = Clock::steady();
        world.radio = std::nullopt;  // on in start(), once the window listens
        world.log = log;
        simulator_ = std::make_unique<Simulator>(world);
        Simulator::ScaleOptions scale;
        scale.pourOnConnect = true;  // a 36 g shot after the tare of each connection
        scale_ = simulator_->addScale(scale);
        context_ = simulator_->context();
        shots_ = ShotLoop::start(scale_, queue_, simulator_->clock());
    } else {
        context_.backendName = options.backend;
        context_.adapter = options.adapter;
        context_.notifications = std::make_shared<NotificationCenter>();
        context_.log = log;
    }
    context_.mainQueue = queue_;
    context_ = context_.resolved();  // an unknown backend throws here, before anything starts
    plenk_ = PKPlenk::create(context_);
}

DemoSession::~DemoSession() {
    shots_.reset();
    plenk_.reset();
}

void DemoSession::start() {
    if (simulator_ && !simulator_->radioState()) simulator_->setRadioState(RadioState::PoweredOn);
}

}  // namespace plenk::demo
