#include "DbusValue.h"

#include <systemd/sd-bus.h>

namespace plenk::fakebluez {

namespace {

template <class... Ts>
struct Overloaded : Ts... {
    using Ts::operator()...;
};
template <class... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>;

int appendStrings(sd_bus_message* m, char type, const std::vector<std::string>& items) {
    const char contents[2] = {type, '\0'};
    int r = sd_bus_message_open_container(m, 'a', contents);
    for (const auto& item : items) {
        if (r < 0) return r;
        r = sd_bus_message_append_basic(m, type, item.c_str());
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

// a{<entry>} where `entry` is the key type followed by the value's signature.
template <class Map, class AppendValue>
int appendDictionary(sd_bus_message* m, const char* entry, const Map& map, AppendValue appendValue) {
    int r = sd_bus_message_open_container(m, 'a', ("{" + std::string(entry) + "}").c_str());
    for (const auto& [key, value] : map) {
        if (r >= 0) r = sd_bus_message_open_container(m, 'e', entry);
        if (r >= 0) r = sd_bus_message_append_basic(m, entry[0], key.c_str());
        if (r >= 0) r = appendValue(m, value);
        if (r >= 0) r = sd_bus_message_close_container(m);
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

}  // namespace

const char* signatureOf(const Value& value) {
    return std::visit(Overloaded{
                          [](bool) { return "b"; },
                          [](std::int16_t) { return "n"; },
                          [](std::uint16_t) { return "q"; },
                          [](std::uint32_t) { return "u"; },
                          [](const std::string&) { return "s"; },
                          [](const ObjectPath&) { return "o"; },
                          [](const std::vector<std::string>&) { return "as"; },
                          [](const std::vector<std::uint8_t>&) { return "ay"; },
                          [](const std::vector<ObjectPath>&) { return "ao"; },
                      },
                      value);
}

int appendValue(sd_bus_message* m, const Value& value) {
    return std::visit(
        Overloaded{
            [&](bool b) {
                const int v = b ? 1 : 0;
                return sd_bus_message_append_basic(m, 'b', &v);
            },
            [&](std::int16_t v) { return sd_bus_message_append_basic(m, 'n', &v); },
            [&](std::uint16_t v) { return sd_bus_message_append_basic(m, 'q', &v); },
            [&](std::uint32_t v) { return sd_bus_message_append_basic(m, 'u', &v); },
            [&](const std::string& v) { return sd_bus_message_append_basic(m, 's', v.c_str()); },
            [&](const ObjectPath& v) { return sd_bus_message_append_basic(m, 'o', v.value.c_str()); },
            [&](const std::vector<std::string>& v) { return appendStrings(m, 's', v); },
            [&](const std::vector<std::uint8_t>& v) {
                return sd_bus_message_append_array(m, 'y', v.data(), v.size());
            },
            [&](const std::vector<ObjectPath>& v) {
                std::vector<std::string> paths;
                for (const auto& p : v) paths.push_back(p.value);
                return appendStrings(m, 'o', paths);
            },
        },
        value);
}

int appendVariant(sd_bus_message* m, const Value& value) {
    int r = sd_bus_message_open_container(m, 'v', signatureOf(value));
    if (r >= 0) r = appendValue(m, value);
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int appendProperties(sd_bus_message* m, const Properties& properties) {
    return appendDictionary(m, "sv", properties, appendVariant);
}

int appendInterfaces(sd_bus_message* m, const Interfaces& interfaces) {
    return appendDictionary(m, "sa{sv}", interfaces, appendProperties);
}

int appendObjects(sd_bus_message* m, const std::map<std::string, Interfaces>& objects) {
    return appendDictionary(m, "oa{sa{sv}}", objects, appendInterfaces);
}

std::optional<Value> readVariant(sd_bus_message* m) {
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(m, &type, &contents) <= 0 || type != 'v' || contents == nullptr)
        return std::nullopt;
    const std::string signature = contents;
    if (sd_bus_message_enter_container(m, 'v', contents) < 0) return std::nullopt;
    std::optional<Value> out;
    int r = 0;
    if (signature == "b") {
        int v = 0;
        if ((r = sd_bus_message_read_basic(m, 'b', &v)) > 0) out = Value(v != 0);
    } else if (signature == "n") {
        std::int16_t v = 0;
        if ((r = sd_bus_message_read_basic(m, 'n', &v)) > 0) out = Value(v);
    } else if (signature == "q") {
        std::uint16_t v = 0;
        if ((r = sd_bus_message_read_basic(m, 'q', &v)) > 0) out = Value(v);
    } else if (signature == "u") {
        std::uint32_t v = 0;
        if ((r = sd_bus_message_read_basic(m, 'u', &v)) > 0) out = Value(v);
    } else if (signature == "s" || signature == "o") {
        const char* v = nullptr;
        if ((r = sd_bus_message_read_basic(m, signature[0], &v)) > 0) {
            out = signature == "s" ? Value(std::string(v)) : Value(ObjectPath{v});
        }
    } else if (signature == "as") {
        char** strv = nullptr;
        if ((r = sd_bus_message_read_strv(m, &strv)) >= 0) {
            std::vector<std::string> items;
            for (char** s = strv; s != nullptr && *s != nullptr; ++s) {
                items.emplace_back(*s);
                std::free(*s);
            }
            std::free(strv);
            out = Value(std::move(items));
        }
    } else if (signature == "ay") {
        const void* data = nullptr;
        std::size_t size = 0;
        if ((r = sd_bus_message_read_array(m, 'y', &data, &size)) >= 0) {
            const auto* bytes = static_cast<const std::uint8_t*>(data);
            out = Value(std::vector<std::uint8_t>(bytes, bytes + size));
        }
    } else {
        r = sd_bus_message_skip(m, contents);
    }
    if (r < 0) return std::nullopt;
    sd_bus_message_exit_container(m);
    return out;
}

std::optional<std::map<std::string, Value>> readDictionary(sd_bus_message* m,
                                                           std::vector<std::string>* unknown) {
    if (sd_bus_message_enter_container(m, 'a', "{sv}") <= 0) return std::nullopt;
    std::map<std::string, Value> out;
    for (;;) {
        const int r = sd_bus_message_enter_container(m, 'e', "sv");
        if (r < 0) return std::nullopt;
        if (r == 0) break;
        const char* key = nullptr;
        if (sd_bus_message_read_basic(m, 's', &key) <= 0) return std::nullopt;
        std::string name = key;
        auto value = readVariant(m);
        if (value) {
            out[name] = std::move(*value);
        } else if (unknown != nullptr) {
            unknown->push_back(name);
        }
        sd_bus_message_exit_container(m);
    }
    sd_bus_message_exit_container(m);
    return out;
}

}  // namespace plenk::fakebluez
