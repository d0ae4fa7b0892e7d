#include "FakeBluez.h"

#include <thread>

#include "BluezModel.h"
#include "BluezNames.h"
#include "EventLoop.h"
#include "wire/GattUuids.h"

namespace plenk::fakebluez {

FakeBluez::FakeBluez(const std::string& busAddress, Timings timings) : loop_(std::make_unique<EventLoop>()) {
    loop_->invoke([&] {
        auto model = std::make_unique<BluezModel>(*loop_, busAddress, timings);
        model->start();
        model_ = std::move(model);
    });
}

FakeBluez::~FakeBluez() {
    // The model dies on its own thread, and the loop stops in the same task so
    // no timer of the model runs afterwards.
    loop_->invoke([&] {
        model_.reset();
        loop_->stop();
    });
    loop_.reset();
}

std::string FakeBluez::devicePath(const std::string& adapter, const std::string& address) {
    return adapterPath(adapter) + "/dev_" + addressPathPart(address);
}

std::string FakeBluez::uniqueName() const {
    std::string name;
    loop_->invoke([&] { name = model_->uniqueName(); });
    return name;
}

void FakeBluez::addAdapter(AdapterSetup setup) {
    loop_->invoke([&] { model_->addAdapter(std::move(setup)); });
}

std::string FakeBluez::addScale(ScaleSetup setup) {
    std::string path;
    loop_->invoke([&] { path = model_->addScale(std::move(setup)); });
    return path;
}

void FakeBluez::failConnect(const std::string& address, const std::string& text, bool always) {
    loop_->invoke([&] { model_->device(address).failConnect(text, always); });
}

void FakeBluez::hangConnect(const std::string& address, Duration after, const std::string& text) {
    loop_->invoke([&] { model_->device(address).hangConnect(after, text); });
}

void FakeBluez::clearConnectFaults(const std::string& address) {
    loop_->invoke([&] { model_->device(address).clearConnectFaults(); });
}

void FakeBluez::setResolveMode(const std::string& address, ResolveMode mode) {
    loop_->invoke([&] { model_->device(address).setResolveMode(mode); });
}

void FakeBluez::removeCharacteristic(const std::string& address, const bt::Uuid& service,
                                     const bt::Uuid& characteristic) {
    loop_->invoke([&] { model_->device(address).removeCharacteristic(service, characteristic); });
}

void FakeBluez::failWrites(const std::string& address, const bt::Uuid& characteristic,
                           std::uint8_t attError) {
    loop_->invoke([&] { model_->device(address).failWrites(characteristic, attError); });
}

void FakeBluez::dropLink(const std::string& address) {
    loop_->invoke([&] { model_->device(address).linkLost(); });
}

void FakeBluez::setInRange(const std::string& address, bool inRange) {
    loop_->invoke([&] { model_->device(address).setInRange(inRange); });
}

void FakeBluez::notify(const std::string& address, const bt::Uuid& characteristic,
                       std::vector<std::uint8_t> value) {
    loop_->invoke([&] { model_->device(address).notify(characteristic, bt::Bytes(value)); });
}

void FakeBluez::pressButton(const std::string& address, int button) {
    loop_->invoke([&] {
        model_->device(address).notify(wire::kControlCharacteristic,
                                       emulator::ScaleEmulator::buttonPacket(button));
    });
}

void FakeBluez::setPowered(const std::string& adapter, bool powered) {
    loop_->invoke([&] { model_->setPowered(adapter, powered); });
}

void FakeBluez::restart(Duration downtime) {
    loop_->invoke([&] { model_->restart(downtime); });
}

std::vector<MethodCall> FakeBluez::calls() const {
    std::vector<MethodCall> calls;
    loop_->invoke([&] { calls = model_->calls(); });
    return calls;
}

std::vector<GattWrite> FakeBluez::writes(const std::string& address) const {
    std::vector<GattWrite> writes;
    loop_->invoke([&] { writes = model_->device(address).writes(); });
    return writes;
}

void FakeBluez::clearWrites(const std::string& address) {
    loop_->invoke([&] { model_->device(address).clearWrites(); });
}

bool FakeBluez::isConnected(const std::string& address) const {
    bool connected = false;
    loop_->invoke([&] { connected = model_->device(address).connected(); });
    return connected;
}

void FakeBluez::withScale(const std::string& address,
                          const std::function<void(emulator::ScaleEmulator&)>& inspect) {
    loop_->invoke([&] { inspect(model_->device(address).scale()); });
}

void FakeBluez::setEmissionObserver(EmissionObserver observer) {
    loop_->invoke([&] { model_->setObserver(std::move(observer)); });
}

bool FakeBluez::waitUntil(const std::function<bool()>& condition, Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace plenk::fakebluez
