#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bt/Uuid.h"
#include "emulator/ScaleEmulator.h"

// A fake bluetoothd: `org.bluez` on a D-Bus bus, behaving as BlueZ 5.66 does
// towards its clients, with scales driven by the firmware emulator.
//
// How a test uses it:
//
//     PrivateBus bus;                              // a dbus-daemon of its own
//     ScopedSystemBus system(bus.address());       // the library under test finds it
//     FakeBluez bluez(bus.address());              // owns org.bluez, runs its own thread
//     bluez.addAdapter({});                        // hci0, powered
//     bluez.addScale({.address = "C0:FF:EE:00:00:01"});
//     ... run the library against the system bus ...
//     bluez.dropLink("C0:FF:EE:00:00:01");         // faults, at any time
//     EXPECT_EQ(bluez.writes("C0:FF:EE:00:00:01")[0].value, ...);
//
// Every member may be called from any thread (not from inside the emission
// observer); each returns once the fake has applied it, so what clients see of
// a change (signals, replies) is already on the bus.
//
// BlueZ habits it keeps, which clients must cope with: RSSI exists only while
// a scan sees the device; StopDiscovery forgets the client's filter; a
// filtered scan signals RSSI on every advertisement; StartNotify while
// disconnected succeeds and the session is subscribed again on every
// reconnection (a repeat before that gets InProgress); each subscribed client
// makes its own PropertiesChanged(Value) per notification; Notifying stays
// true over a link loss; GATT objects stay exported while disconnected.
// Where it simplifies: a concurrent Connect gets InProgress (bluetoothd says
// Failed "Operation already in progress"), reads and writes pending at a
// link loss fail with Failed "Not connected", no descriptors, no pairing, no
// Introspect, every property read-only, no write or read offsets.
namespace plenk::dispatch {
class PollLoop;
}

namespace plenk::fakebluez {

using Duration = std::chrono::nanoseconds;
using namespace std::chrono_literals;

// The delays of the simulated radio. Small by default so tests run fast; the
// order of events is what BlueZ gives, whatever the values.
struct Timings {
    Duration advertisingInterval = 100ms;
    Duration firstAdvertisement = 5ms;  // after a scan starts
    Duration discoveryLatency = 2ms;    // StartDiscovery/StopDiscovery reach the controller
    Duration connectLatency = 10ms;     // Connect() to link-up
    Duration servicesResolvedDelay = 20ms;
    Duration attLatency = 2ms;           // one ATT request and its response
    Duration disconnectLatency = 5ms;    // Disconnect() to link-down
    Duration connectTimeout = 5s;        // a Connect() to a silent device gives up
    Duration temporaryTimeout = 30s;     // unconnected devices vanish after a scan (0: never)
    Duration lateServicesResolved = 1s;  // extra wait of ResolveMode::Late / BeforeObjects
};

struct AdapterSetup {
    std::string name = "hci0";
    std::string address = "00:1A:7D:DA:71:10";
    std::string alias = "fakebluez";
    bool powered = true;
};

struct ScaleSetup {
    std::string address = "C0:FF:EE:00:00:01";
    std::string adapter = "hci0";
    emulator::ScaleOptions options{};
    std::int16_t rssi = -60;
    bool inRange = true;
    bool connected = false;     // already connected to the system when the fake starts
    bool cached = false;        // known from an earlier scan: exported, without RSSI, before any scan
    bool streamWeights = true;  // stream weight packets while someone listens
    bool sequence = false;      // benchmark: weight packet i carries the weight i
};

// When ServicesResolved turns true after a link-up.
enum class ResolveMode {
    Normal,         // GATT objects exported, then ServicesResolved=true
    Never,          // GATT objects exported, ServicesResolved stays false
    Late,           // as Normal, ServicesResolved only after Timings::lateServicesResolved
    BeforeObjects,  // ServicesResolved=true first, GATT objects lateServicesResolved later
};

// One write that reached a scale's GATT server.
struct GattWrite {
    bt::Uuid characteristic;
    std::vector<std::uint8_t> value;
};

class BluezModel;

class FakeBluez {
public:
    // Connects to the bus at `busAddress` and owns org.bluez; throws std::runtime_error.
    explicit FakeBluez(const std::string& busAddress, Timings timings = {});
    ~FakeBluez();
    FakeBluez(const FakeBluez&) = delete;
    FakeBluez& operator=(const FakeBluez&) = delete;

    static std::string adapterPath(const std::string& adapter) { return "/org/bluez/" + adapter; }
    // "/org/bluez/hci0/dev_C0_FF_EE_00_00_01"
    static std::string devicePath(const std::string& adapter, const std::string& address);

    // --- topology -------------------------------------------------------------
    void addAdapter(AdapterSetup setup);
    // Returns the device's object path. Throws std::invalid_argument for an
    // unknown adapter, a malformed or duplicate address.
    std::string addScale(ScaleSetup setup);

    // --- faults and stimuli (by device address) -------------------------------
    // The next Connect() fails with org.bluez.Error.Failed and `text`, e.g.
    // "le-connection-abort-by-remote".
    void failConnect(const std::string& address, const std::string& text);
    // Connect() stays pending for `after`, then fails with `text`.
    void hangConnect(const std::string& address, Duration after,
                     const std::string& text = "le-connection-timeout");
    void clearConnectFaults(const std::string& address);
    void setResolveMode(const std::string& address, ResolveMode mode);
    // Leaves a characteristic out of the GATT table from now on.
    void removeCharacteristic(const std::string& address, const bt::Uuid& service,
                              const bt::Uuid& characteristic);
    // Writes of the characteristic fail with this ATT error code until cleared
    // with 0 (0x03 write not permitted, ...).
    void failWrites(const std::string& address, const bt::Uuid& characteristic, std::uint8_t attError);
    // The peer drops the link (a link loss: ServicesResolved=false, Connected=false).
    void dropLink(const std::string& address);
    // Out of range: the link drops, nothing is advertised, connects wait.
    void setInRange(const std::string& address, bool inRange);
    // Sends a notification (or indication) of `value` on the characteristic.
    void notify(const std::string& address, const bt::Uuid& characteristic, std::vector<std::uint8_t> value);
    void pressButton(const std::string& address, int button);

    // --- the daemon -----------------------------------------------------------
    // Powered off: links drop first, discovery sessions end, Powered=false.
    void setPowered(const std::string& adapter, bool powered);
    // bluetoothd restarts: it leaves the bus with every object and link, then a
    // new connection (a new unique name) owns org.bluez again after `downtime`
    // and exports adapters and known devices again. Returns at once.
    void restart(Duration downtime = 0ms);

    // --- records --------------------------------------------------------------
    // The member of every method call received ("Connect", ...), in arrival order.
    std::vector<std::string> calls() const;
    std::vector<GattWrite> writes(const std::string& address) const;
    bool isConnected(const std::string& address) const;
    // Runs `inspect` with the scale's emulator on the fake's thread.
    void withScale(const std::string& address, const std::function<void(emulator::ScaleEmulator&)>& inspect);
    // Called on the fake's thread after every notification value leaves
    // (D-Bus signal or socket packet): address, index since start, CLOCK_MONOTONIC ns.
    using EmissionObserver = std::function<void(const std::string&, std::uint64_t, std::int64_t)>;
    void setEmissionObserver(EmissionObserver observer);

private:
    std::unique_ptr<dispatch::PollLoop> loop_;
    std::unique_ptr<BluezModel> model_;  // lives on the loop thread
};

}  // namespace plenk::fakebluez
