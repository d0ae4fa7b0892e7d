#include "EmulatorLog.h"

#include <fstream>
#include <sstream>

#include "HexText.h"

std::vector<std::uint8_t> EmulatorEvent::bytes(std::size_t skip) const {
    std::string text;
    for (std::size_t i = skip; i < words.size(); ++i) text += words[i] + ' ';
    return plenk::cli::parseHexText(text).bytes;  // empty when not hex
}

std::vector<EmulatorEvent> EmulatorLog::read() const {
    std::vector<EmulatorEvent> events;
    std::ifstream in(path_);
    std::string line;
    while (std::getline(in, line)) {
        if (in.eof()) break;  // no newline yet: the emulator is still writing it
        std::istringstream words(line);
        EmulatorEvent event;
        if (!(words >> event.seconds >> event.event)) continue;  // a line still being written
        for (std::string word; words >> word;) event.words.push_back(word);
        events.push_back(std::move(event));
    }
    return events;
}

std::vector<EmulatorEvent> EmulatorLog::since(std::size_t from, const std::string& event) const {
    std::vector<EmulatorEvent> out;
    const auto all = read();
    for (std::size_t i = from; i < all.size(); ++i) {
        if (all[i].event == event) out.push_back(all[i]);
    }
    return out;
}

std::vector<std::vector<std::uint8_t>> EmulatorLog::valuesRead(const std::string& characteristic) const {
    std::vector<std::vector<std::uint8_t>> values;
    for (const auto& event : since(0, "read")) {
        if (!event.words.empty() && event.words[0] == characteristic) values.push_back(event.bytes(1));
    }
    return values;
}
