// Names, objects and frames of a store on a Redis server. No state, no lock.
#include "platform/redis_wire.h"

#include <algorithm>
#include <cstdio>
#include <random>

namespace tq {

namespace {

constexpr size_t length_size = 4;

bool take_string(std::string_view &bytes, std::string_view &string) {
    if (bytes.size() < length_size) return false;
    size_t length = 0;
    for (size_t i = 0; i < length_size; ++i) length = length << 8 | static_cast<uint8_t>(bytes[i]);
    bytes.remove_prefix(length_size);
    if (length > bytes.size()) return false;
    string = bytes.substr(0, length);
    bytes.remove_prefix(length);
    return true;
}

// Of strings: the table of frames in redis_wire.h.
bool right_number(char letter, size_t strings) {
    switch (letter) {
        case 'S':
            return strings == 2;
        case 'C':
        case 'E':
            return strings == 3;
        case 'D':
        case 'M':
            return strings == 1;
        default:
            return false;
    }
}

}  // namespace

std::string hash_of(const Place &place) {
    return "dm:" + std::to_string(place.db) + ":" + place.kind;
}

std::string channel_of(const Place &place, const std::string &key) {
    return hash_of(place) + "/" + key;
}

std::string random_id() {
    std::random_device random;
    char id[33];
    std::snprintf(id, sizeof id, "%08x%08x%08x%08x", random(), random(), random(), random());
    return id;
}

std::string new_private_channel() {
    return "dm:client:" + random_id();
}

ObjectPtr new_object(std::string_view key, std::string_view bytes) {
    return std::make_shared<const Object>(Object{std::string(key), std::string(bytes)});
}

bool is_list_of_pairs(const redisReply &reply) {
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements % 2 != 0) return false;
    return std::all_of(reply.element, reply.element + reply.elements,
                       [](const redisReply *element) { return element->type == REDIS_REPLY_STRING; });
}

std::vector<ObjectPtr> objects_of(const redisReply &list) {
    std::vector<ObjectPtr> objects;
    objects.reserve(list.elements / 2);
    for (size_t i = 0; i < list.elements; i += 2)
        objects.push_back(new_object(text_of(*list.element[i]), text_of(*list.element[i + 1])));
    return objects;
}

// A number has few digits: its length is in the last of the four bytes alone.
std::string mark_frame(uint64_t scan) {
    const std::string number = std::to_string(scan);
    return std::string{'M', 0, 0, 0, static_cast<char>(number.size())} + number;
}

bool parse_frame(std::string_view bytes, Frame &frame) {
    if (bytes.empty()) return false;
    frame.letter = bytes.front();
    frame.strings.clear();
    bytes.remove_prefix(1);
    while (!bytes.empty()) {
        std::string_view string;
        if (!take_string(bytes, string)) return false;
        frame.strings.push_back(string);
    }
    return right_number(frame.letter, frame.strings.size());
}

}  // namespace tq
