#pragma once

#include <memory>
#include <string>

#include <PlenkKit/PlenkKit.h>
#include <PlenkKitGtk/GLibMainQueue.h>

#include "ShotLoop.h"

namespace plenk::demo {

struct DemoOptions {
    bool sim = false;      // the simulated "Plenk Scale" on real time
    std::string backend;   // empty: the library's default (BlueZ when built in)
    std::string adapter;   // "hci1" or "/org/bluez/hci1"; empty: the first powered
    bool verbose = false;  // the library's diagnostics on standard error
};

// The library's side of the demo: the facade on the GTK main loop (every
// callback runs on the default GLib main context) over the real backend or a
// simulated scale that keeps pouring shots. Main thread only.
class DemoSession {
public:
    // Throws std::invalid_argument for an unknown backend name or options that
    // contradict each other.
    explicit DemoSession(const DemoOptions& options);
    // Releases the facade before the simulated world it runs on.
    ~DemoSession();
    DemoSession(const DemoSession&) = delete;
    DemoSession& operator=(const DemoSession&) = delete;

    // Switches the simulated radio on; call once the facade has its delegate,
    // so that nothing the scale does goes unheard.
    void start();

    const std::shared_ptr<PKPlenk>& plenk() const { return plenk_; }
    const std::shared_ptr<gtk::GLibMainQueue>& mainQueue() const { return queue_; }
    const std::shared_ptr<NotificationCenter>& notifications() const { return context_.notifications; }
    bool simulated() const { return simulator_ != nullptr; }
    // The simulated scale; an empty handle on a real backend.
    const Simulator::Scale& simulatedScale() const { return scale_; }

private:
    std::shared_ptr<gtk::GLibMainQueue> queue_;  // the library holds it weakly
    std::unique_ptr<Simulator> simulator_;
    Simulator::Scale scale_;
    std::shared_ptr<ShotLoop> shots_;
    Context context_;
    std::shared_ptr<PKPlenk> plenk_;
};

}  // namespace plenk::demo
