#include "EmulatorLog.h"

#include <fstream>
#include <sstream>

std::vector<std::uint8_t> EmulatorEvent::bytes(std::size_t skip) const {
    std::vector<std::uint8_t> out;
    for (std::size_t i = skip; i < words.size(); ++i)
        out.push_back(static_cast<std::uint8_t>(std::stoul(words[i], nullptr, 16)));
    return out;
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
