#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The lines plenk-emulator printed so far, read back from its log file:
// "SECONDS EVENT [DETAILS...]", hex bytes as separate words.
struct EmulatorEvent {
    double seconds = 0;
    std::string event;
    std::vector<std::string> words;  // the details, split on blanks

    // The details' trailing hex bytes (all words after `skip`).
    std::vector<std::uint8_t> bytes(std::size_t skip = 0) const;
};

class EmulatorLog {
public:
    explicit EmulatorLog(std::string path) : path_(std::move(path)) {}

    // Every event printed so far (the file is read again each time).
    std::vector<EmulatorEvent> read() const;
    std::size_t size() const { return read().size(); }
    // The events of one kind from index `from` on.
    std::vector<EmulatorEvent> since(std::size_t from, const std::string& event) const;
    // Every value the emulator served for reads of one characteristic ("EF83").
    std::vector<std::vector<std::uint8_t>> valuesRead(const std::string& characteristic) const;

private:
    std::string path_;
};
