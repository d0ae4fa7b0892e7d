#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <PlenkKit/Color.h>
#include <PlenkKit/Context.h>
#include <PlenkKit/Executor.h>
#include <PlenkKit/Export.h>
#include <PlenkKit/RKErrors.h>
#include <PlenkKit/RKRostaKit.h>

namespace plenk {

class PKPlenk;

// The host's receiver of connection, error, weight and button events. Every
// call arrives on the main queue, in event order, never inside the host's own
// call. Every method has an empty default: overriding one is responding to it.
class PLENK_EXPORT PKPlenkDelegate {
public:
    virtual ~PKPlenkDelegate();
    virtual void plenkDidConnected(PKPlenk& plenk);
    virtual void plenkDidDisconnected(PKPlenk& plenk);
    // The kit's errors, exactly as RKRostaDelegate::rostaDidErrorOccur lists
    // them: RKErrorDomain, kinds with codes 103 to 109, or kindless 110.
    virtual void plenkDidErrorOccur(PKPlenk& plenk, const ErrorPtr& error);
    // The weight exactly as the scale reported it, every reading, unthrottled.
    virtual void plenkWeightDidUpdate(float weight);
    // 0 or 1.
    virtual void plenkDeviceDidClickButton(std::uint64_t button);
};

// The host's texts and colours for the device picker; nullopt keeps the
// picker's default. Asked on the main thread while the picker is built.
class PLENK_EXPORT PKPlenkDataSource {
public:
    virtual ~PKPlenkDataSource();
    virtual std::optional<std::string> titleForSelectAccessoryModalViewController();
    virtual std::optional<std::string> deviceStringForSelectAccessoryModalViewController();
    virtual std::optional<Color> backgroundColorForSelectAccessoryModalViewController();
    virtual std::optional<Color> navigationBarColorForSelectAccessoryModalViewController();
};

// The one class a host uses: owns one kit, forwards the host's requests to it
// and moves every event of the kit onto the main queue for the host's delegate.
//
//     auto plenk = plenk::PKPlenk::create();
//     plenk->setDelegate(myDelegate);           // held weakly
//     plenk->setIsAutoConnectEnabled(true);
//
// Any operation may be called from any thread, also from inside a callback.
class PLENK_EXPORT PKPlenk final : public RKRostaDelegate,
                                   public RKRostaDataSource,
                                   public std::enable_shared_from_this<PKPlenk> {
public:
    // Creates the facade and its kit and makes the facade the kit's delegate and
    // data source. Throws std::invalid_argument for an unknown backend name.
    static std::shared_ptr<PKPlenk> create(const Context& context = {});
    // Clears the kit's delegate, then releases the kit.
    ~PKPlenk() override;
    PKPlenk(const PKPlenk&) = delete;
    PKPlenk& operator=(const PKPlenk&) = delete;

    // The host's last choice, NO until set: a fresh kit auto-connects although
    // this reads NO; the two agree once the host has set it.
    bool isAutoConnectEnabled() const;
    void setIsAutoConnectEnabled(bool enabled);
    bool isConnected() const;

    // The kit's picker: `completion` hears what
    // RKRostaKit::showDevicePickerOnViewContoller lists (codes 100 to 110 of
    // RKErrorDomain, or null once linked), on the same threads.
    void showDevicePickerOnViewContoller(const std::shared_ptr<PickerPresenter>& viewController,
                                         RKRostaKit::PickerCompletion completion);
    void readPlenkBatteryLifeWithCompletion(RKRostaKit::BatteryCompletion completion);
    // Drops the link for good: continuous connection off, then disconnect.
    void disconnect();
    // Simulates an interruption: continuous connection on, then disconnect.
    void fakeInterrupt();
    void tare();
    void setLEDDisplayOn(bool on);

    // Both are held weakly: a released receiver is simply absent.
    std::shared_ptr<PKPlenkDelegate> delegate() const;
    void setDelegate(std::weak_ptr<PKPlenkDelegate> delegate);
    std::shared_ptr<PKPlenkDataSource> dataSource() const;
    void setDataSource(std::weak_ptr<PKPlenkDataSource> dataSource);

    std::shared_ptr<RKRostaKit> rosta() const;
    void setRosta(std::shared_ptr<RKRostaKit> rosta);

    // RKRostaDelegate: each queues the matching host call on the main queue.
    void rostaDidConnected(RKRostaKit& kit) override;
    void rostaDidDisconnected(RKRostaKit& kit) override;
    void rostaDidErrorOccur(RKRostaKit& kit, const ErrorPtr& error) override;
    void rostaWeightDidUpdate(float weight) override;
    void rostaDeviceDidClickButton(std::uint64_t button) override;

    // RKRostaDataSource: the host data source's answer, asked at once.
    std::optional<std::string> titleForSelectAccessoryModalViewController() override;
    std::optional<std::string> deviceStringForSelectAccessoryModalViewController() override;
    std::optional<Color> backgroundColorForSelectAccessoryModalViewController() override;
    std::optional<Color> navigationBarColorForSelectAccessoryModalViewController() override;

private:
    struct Token {};

public:
    // Use create(): the kit needs a shared owner to point back at.
    PKPlenk(Token, const Context& context);

private:
    struct Bridge;
    struct State;  // the fields, behind a lock of the library
    const std::unique_ptr<State> state_;
};

}  // namespace plenk
