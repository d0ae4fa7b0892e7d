#include "FakeBluez.h"

#include <future>
#include <stdexcept>

#include "BluezModel.h"
#include "BluezNames.h"
#include "dispatch/PollLoop.h"
#include "wire/GattUuids.h"

namespace plenk::fakebluez {

namespace {

// Runs `task` on the fake's thread and waits for its result, passing its exception on.
template <class Task>
auto invoke(dispatch::PollLoop& loop, Task task) -> decltype(task()) {
    if (loop.isCurrent()) return task();
    std::packaged_task<decltype(task())()> job(std::move(task));
    auto result = job.get_future();
    if (!loop.post([&] { job(); })) throw std::runtime_error("fake bluetoothd: the event loop has stopped");
    return result.get();
}

}  // namespace

FakeBluez::FakeBluez(const std::string& busAddress, Timings timings)
    : loop_(std::make_unique<dispatch::PollLoop>("fake-bluetoothd")) {
    invoke(*loop_, [&] {
        auto model = std::make_unique<BluezModel>(*loop_, busAddress, timings);
        model->start();
        model_ = std::move(model);
    });
}

FakeBluez::~FakeBluez() {
    // The model dies on its own thread, as the loop's last task: no timer of
    // the model runs afterwards.
    loop_->stop([this] { model_.reset(); });
}

std::string FakeBluez::devicePath(const std::string& adapter, const std::string& address) {
    return adapterPath(adapter) + "/dev_" + addressPathPart(address);
}

void FakeBluez::addAdapter(AdapterSetup setup) {
    invoke(*loop_, [&] { model_->addAdapter(std::move(setup)); });
}

std::string FakeBluez::addScale(ScaleSetup setup) {
    return invoke(*loop_, [&] { return model_->addScale(std::move(setup)); });
}

void FakeBluez::failConnect(const std::string& address, const std::string& text) {
    invoke(*loop_, [&] { model_->device(address).failConnect(text); });
}

void FakeBluez::hangConnect(const std::string& address, Duration after, const std::string& text) {
    invoke(*loop_, [&] { model_->device(address).hangConnect(after, text); });
}

void FakeBluez::clearConnectFaults(const std::string& address) {
    invoke(*loop_, [&] { model_->device(address).clearConnectFaults(); });
}

void FakeBluez::setResolveMode(const std::string& address, ResolveMode mode) {
    invoke(*loop_, [&] { model_->device(address).setResolveMode(mode); });
}

void FakeBluez::removeCharacteristic(const std::string& address, const bt::Uuid& service,
                                     const bt::Uuid& characteristic) {
    invoke(*loop_, [&] { model_->device(address).removeCharacteristic(service, characteristic); });
}

void FakeBluez::failWrites(const std::string& address, const bt::Uuid& characteristic,
                           std::uint8_t attError) {
    invoke(*loop_, [&] { model_->device(address).failWrites(characteristic, attError); });
}

void FakeBluez::dropLink(const std::string& address) {
    invoke(*loop_, [&] { model_->device(address).linkLost(); });
}

void FakeBluez::setInRange(const std::string& address, bool inRange) {
    invoke(*loop_, [&] { model_->device(address).setInRange(inRange); });
}

void FakeBluez::notify(const std::string& address, const bt::Uuid& characteristic,
                       std::vector<std::uint8_t> value) {
    invoke(*loop_, [&] { model_->device(address).notify(characteristic, bt::Bytes(value)); });
}

void FakeBluez::pressButton(const std::string& address, int button) {
    invoke(*loop_, [&] {
        model_->device(address).notify(wire::kControlCharacteristic,
                                       emulator::ScaleEmulator::buttonPacket(button));
    });
}

void FakeBluez::setPowered(const std::string& adapter, bool powered) {
    invoke(*loop_, [&] { model_->setPowered(adapter, powered); });
}

void FakeBluez::restart(Duration downtime) {
    invoke(*loop_, [&] { model_->restart(downtime); });
}

std::vector<std::string> FakeBluez::calls() const {
    return invoke(*loop_, [&] { return model_->calls(); });
}

std::vector<GattWrite> FakeBluez::writes(const std::string& address) const {
    return invoke(*loop_, [&] { return model_->device(address).writes(); });
}

bool FakeBluez::isConnected(const std::string& address) const {
    return invoke(*loop_, [&] { return model_->device(address).connected(); });
}

void FakeBluez::withScale(const std::string& address,
                          const std::function<void(emulator::ScaleEmulator&)>& inspect) {
    invoke(*loop_, [&] { inspect(model_->device(address).scale()); });
}

void FakeBluez::setEmissionObserver(EmissionObserver observer) {
    invoke(*loop_, [&] { model_->setObserver(std::move(observer)); });
}

}  // namespace plenk::fakebluez
