#include "ScaleRun.h"

#include <cstdio>
#include <iostream>
#include <utility>

#include "ErrorText.h"

namespace plenk::cli {

namespace {
// The connection options are checked before the session starts the library.
const GlobalOptions& checked(const GlobalOptions& global, const ConnectOptions& connect) {
    checkConnectOptions(connect);
    return global;
}
}  // namespace

ScaleRun::ScaleRun(const GlobalOptions& global, const ConnectOptions& connect)
    : session_(checked(global, connect)), connector_(session_, connect) {}

void ScaleRun::run(const std::function<void(ScaleRun&)>& work) {
    session_.events().error = [this](const ErrorPtr& error) { onError(error); };
    // A held link is brought back by the kit; one that is given up ends the verb.
    session_.events().disconnected = [this] {
        if (!connector_.isConnected()) return;  // a scale the kit took by itself, let go
        session_.finish(kExitConnectionFailed, "the link to '" + scaleName() + "' was lost");
    };
    session_.setDeadline(connector_.timeout(), [this] { connector_.timedOut(waitingFor_); });
    connector_.start([this, work] {
        // The connection's tare may still be on its way: let it be answered,
        // so its result is never taken for the verb's.
        waitFor("the answers to the connection's tare");
        afterPendingWrites([this, work](const RKConfigurationRecord*) {
            settled_ = true;
            waitFor("its answer");
            work(*this);
        });
    });
    session_.run();
}

void ScaleRun::afterPendingWrites(std::function<void(const RKConfigurationRecord* record)> next) {
    const auto device = this->device();
    if (!device) return session_.finish(kExitConnectionFailed, "the link to '" + scaleName() + "' was lost");
    pendingBarrier_ = std::move(next);
    lastRecord_.reset();
    device->readRawData(onLoop([this](RKConfigurationRecord record) {
        lastRecord_ = record;
        if (auto next = std::exchange(pendingBarrier_, nullptr)) next(&record);
    }));
}

namespace {

// Results of a run of command writes, from the device's first result slot.
// Nothing else is in flight (afterPendingWrites ran before the work), so the
// slot receives exactly these writes' results, in order; each result re-arms
// it, on the Bluetooth queue, before the next one can come.
struct WriteResults : std::enable_shared_from_this<WriteResults> {
    std::weak_ptr<RKDevice> device;
    int remaining = 0;
    std::function<void(bool, const ErrorPtr&)> report;  // called on the Bluetooth queue

    void arm() {
        if (auto d = device.lock()) {
            d->setSyncCompletion([self = shared_from_this()](bool success, const ErrorPtr& error) {
                if (success && --self->remaining > 0) return self->arm();
                self->report(success, error);
            });
        }
    }
};

}  // namespace

void ScaleRun::sendCommand(int writes, const std::function<void()>& send,
                           std::function<void(bool success, const ErrorPtr& error)> done) {
    auto results = std::make_shared<WriteResults>();
    results->device = device();
    results->remaining = writes;
    results->report = onLoop(std::move(done));
    results->arm();
    send();
}

void ScaleRun::print(const std::string& text, const JsonObject& object) const {
    std::cout << (json() ? object.str() : text) << std::endl;
}

void ScaleRun::refused(const std::string& what, const ErrorPtr& error) {
    session_.finish(kExitCommandFailed, "'" + scaleName() + "' refused " + what +
                                            (error ? ": " + describeError(*error) : std::string()));
}

void ScaleRun::onError(const ErrorPtr& error) {
    if (!error) return;
    // A record read that failed still comes after every write before it.
    if (isKind<RKErrorLEReadC>(error) && pendingBarrier_) {
        return std::exchange(pendingBarrier_, nullptr)(nullptr);
    }
    if (isKind<RKErrorLEWriteC>(error) && !settled_) {
        std::cerr << "plenk: warning: '" << scaleName()
                  << "' refused the tare sent on connecting: " << describeError(*error) << std::endl;
        return;
    }
    refused(isKind<RKErrorLEReadC>(error) ? "a read" : "a command", error);
}

}  // namespace plenk::cli
