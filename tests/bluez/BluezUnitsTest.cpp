// The BlueZ backend's pure parts: what would break quietly (a stored
// identifier that changes, a failure mapped to the wrong kind, a device
// reported twice or never).
#include <gtest/gtest.h>

#include <PlenkKit/PlatformErrors.h>

#include "backends/bluez/AdapterChoice.h"
#include "backends/bluez/BluezErrors.h"
#include "backends/bluez/PeripheralIdentifier.h"
#include "backends/bluez/ScanSession.h"

using namespace plenk;
using namespace plenk::bluez;

namespace {
constexpr const char* kFailed = "org.bluez.Error.Failed";
}

TEST(BluezErrors, ConnectFailuresMapOntoTheCodesTheKitReads) {
    struct Row {
        const char* name;
        const char* message;
        ConnectOutcome outcome;
        std::int64_t code;  // link domain, when Failed
    };
    // The texts of org.bluez.Error.Failed go through to the host in the
    // connection tests; here, the answers that come by name and the outcomes
    // that are not failures.
    const Row rows[] = {
        {"org.freedesktop.DBus.Error.NoReply", "", ConnectOutcome::Failed, 14},
        {"org.freedesktop.DBus.Error.UnknownObject", "", ConnectOutcome::Failed, 12},
        {"org.bluez.Error.NotReady", "Resource Not Ready", ConnectOutcome::Failed, kPlatformConnectionFailed},
        {kFailed, "something bluetoothd says one day", ConnectOutcome::Failed, 11},
        {"org.bluez.Error.AlreadyConnected", "", ConnectOutcome::Linked, 0},
        {kFailed, "le-connection-already-connected", ConnectOutcome::Linked, 0},
        {"org.bluez.Error.InProgress", "In Progress", ConnectOutcome::Busy, 0},
        {kFailed, "Operation already in progress", ConnectOutcome::Busy, 0},
        {kFailed, "br-connection-canceled", ConnectOutcome::Cancelled, kPlatformOperationCancelled},
    };
    for (const auto& row : rows) {
        const BusError error{row.name, row.message};
        EXPECT_EQ(classifyConnectFailure(error), row.outcome) << row.name << " " << row.message;
        if (row.code == 0) continue;
        const auto mapped = connectError(error);
        EXPECT_EQ(mapped->domain(), kPlatformErrorDomain) << row.message;
        EXPECT_EQ(mapped->code(), row.code) << row.name << " " << row.message;
    }
}

TEST(BluezErrors, RequestFailuresKeepThePeersAttCode) {
    struct Row {
        const char* name;
        const char* message;
        std::string_view domain;
        std::int64_t code;
    };
    const Row rows[] = {
        {"org.bluez.Error.NotPermitted", "Read not permitted", kAttErrorDomain, kAttReadNotPermitted},
        {"org.bluez.Error.NotPermitted", "Write not permitted", kAttErrorDomain, kAttWriteNotPermitted},
        {"org.bluez.Error.InvalidArguments", "Invalid offset", kAttErrorDomain, kAttInvalidOffset},
        {"org.bluez.Error.InvalidArguments", "Invalid Length", kAttErrorDomain,
         kAttInvalidAttributeValueLength},
        {"org.bluez.Error.NotSupported", "", kAttErrorDomain, kAttRequestNotSupported},
        {kFailed, "Operation failed with ATT error: 0x0e", kAttErrorDomain, 0x0E},
        {kFailed, "Operation failed with ATT error: 0xzz", kPlatformErrorDomain, kPlatformUnknown},
        {kFailed, "Not connected", kPlatformErrorDomain, kPlatformNotConnected},
        {"org.freedesktop.DBus.Error.NoReply", "", kPlatformErrorDomain, kPlatformConnectionTimeout},
    };
    for (const auto& row : rows) {
        const auto mapped = requestError({row.name, row.message});
        EXPECT_EQ(mapped->domain(), row.domain) << row.name << " " << row.message;
        EXPECT_EQ(mapped->code(), row.code) << row.name << " " << row.message;
    }
}

TEST(BluezIdentifiers, NameBasedAndStableAcrossRuns) {
    // The RFC 4122 namespace for DNS names and a well-known result.
    const auto dns = bt::Uuid::fromString("6ba7b810-9dad-11d1-80b4-00c04fd430c8");
    EXPECT_EQ(nameBasedUuid(dns, "python.org"), bt::Uuid::fromString("886313e1-3b8a-5372-9b90-0c9aee199e5d"));

    // Hosts store these: the value for a pair of addresses never changes.
    const auto id = peripheralIdentifier("00:1A:7D:DA:71:10", "C0:FF:EE:00:00:01");
    EXPECT_EQ(id.toString(), "2244C5C1-7550-5A7E-8984-E4F7D45D772C");
    EXPECT_EQ(peripheralIdentifier("00:1a:7d:da:71:10", "c0:ff:ee:00:00:01"), id);
}

TEST(BluezScan, EachDeviceIsCheckedAgainstThisScansOwnFilterAndReportedOncePerScan) {
    const auto scale = bt::Uuid::from16(0xFF08);
    const auto other = bt::Uuid::from16(0x180D);
    struct Step {
        const char* path;
        std::vector<bt::Uuid> services;
        bool heard;
        bool reported;
    };
    using Filter = std::optional<std::vector<bt::Uuid>>;
    const Filter any, empty = std::vector<bt::Uuid>{}, scaleOnly = std::vector{scale};
    struct Case {
        const char* name;
        Filter filter;
        bool duplicates;
        std::vector<Step> steps;
    };
    const Case cases[] = {
        {"once per scan", any, false, {{"a", {}, true, true}, {"a", {}, true, false}, {"b", {}, true, true}}},
        // Every advertisement, but not a mere property change.
        {"duplicates", any, true, {{"a", {}, true, true}, {"a", {}, true, true}, {"a", {}, false, false}}},
        // Another client's wider filter brings devices this scan did not ask for.
        {"filtered", scaleOnly, false, {{"a", {other}, true, false}, {"b", {scale, other}, true, true}}},
        {"an empty filter is every device", empty, false, {{"a", {other}, true, true}}},
        // Cached from an earlier scan: reported once this scan hears it.
        {"cached", any, false, {{"a", {}, false, false}, {"a", {}, true, true}}},
        // Heard before its services were known: reported when they arrive.
        {"services later", scaleOnly, false, {{"a", {}, true, false}, {"a", {scale}, false, true}}},
    };
    for (const auto& c : cases) {
        ScanSession scan;
        scan.start(c.filter, c.duplicates);
        for (std::size_t i = 0; i < c.steps.size(); ++i) {
            const auto& s = c.steps[i];
            EXPECT_EQ(scan.offer(s.path, s.services, s.heard), s.reported) << c.name << ", step " << i;
        }
        // A new scan forgets what the last one reported; a stopped one reports nothing.
        scan.start(c.filter, c.duplicates);
        const auto& first = c.steps.front();
        EXPECT_EQ(scan.offer(first.path, first.services, true), scan.matches(first.services)) << c.name;
        scan.stop();
        EXPECT_FALSE(scan.offer(first.path, first.services, true)) << c.name;
    }
}

TEST(BluezAdapters, ChosenByNameOrPathElseTheFirstPowered) {
    const std::vector<AdapterCandidate> adapters = {
        {"/org/bluez/hci10", true}, {"/org/bluez/hci0", false}, {"/org/bluez/hci2", true}};
    struct Row {
        const char* requested;
        std::vector<AdapterCandidate> candidates;
        std::optional<std::string> chosen;
    };
    const Row rows[] = {
        {"", adapters, "/org/bluez/hci2"},
        {"hci0", adapters, "/org/bluez/hci0"},
        {"/org/bluez/hci10", adapters, "/org/bluez/hci10"},
        {"hci7", adapters, std::nullopt},
        {"", {{"/org/bluez/hci1", false}, {"/org/bluez/hci0", false}}, "/org/bluez/hci0"},
        {"", {}, std::nullopt},
    };
    for (const auto& row : rows)
        EXPECT_EQ(chooseAdapter(row.requested, row.candidates), row.chosen) << row.requested;
}
