#include "json_output.h"

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

static Json text_or_null(const std::string &text)
{
    return text.empty() ? Json(nullptr) : Json(text);
}

// The words that programs know from other listings of this shape.
static Json type_of(const std::string &kind)
{
    static const struct {
        const char *kind;
        const char *type;
    } types[] = {
        {"Hard Drive", "disk"},
        {"CD-ROM", "rom"},
        {"Partition", "part"},
        {"Logical Volume", "lvm"},
    };
    for (const auto &row : types)
        if (kind == row.kind)
            return row.type;
    return text_or_null(kind);
}

static Json listed_json(const Device &device, const MountTable &mounts)
{
    Json json = {
        {"name", device.name},
        {"path", "/dev/" + device.name},
        {"type", type_of(device.type)},
        {"kind", text_or_null(device.type)},
        {"connection", text_or_null(device.connection)},
        {"label", text_or_null(device.label)},
        {"size", nullptr},
        {"model", text_or_null(device.model)},
        {"place", text_or_null(device.place)},
        {"raid", text_or_null(device.raid)},
        {"fstype", text_or_null(device.filesystem)},
        {"mountpoints", nullptr},
    };
    if (device.size >= 0)
        json["size"] = device.size;
    if (mounts.is_known)
        json["mountpoints"] = mounts.PointsOf(device.name);
    return json;
}

static Json enumerated_json(const Device &device, bool is_partition)
{
    return {
        {"name", device.name},
        {"path", "/dev/" + device.name},
        {"type", is_partition ? Json("part") : type_of(device.type)},
        {"kind", text_or_null(device.type)},
        {"connection", text_or_null(device.connection)},
        {"label", text_or_null(device.label)},
        {"model", text_or_null(device.model)},
        {"place", text_or_null(device.place)},
        {"sysfs_path", text_or_null(device.sysfs_path)},
    };
}

// Nothing but ASCII: what a label holds reaches a terminal as digits at most.
static std::string document(Json drives)
{
    const Json json = {{"blockdevices", std::move(drives)}};
    return json.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

std::string list_json(const std::vector<Drive> &drives, const MountTable &mounts)
{
    Json list = Json::array();
    for (const Drive &drive : drives) {
        Json json = listed_json(drive.device, mounts);
        for (const Device &partition : drive.partitions)
            json["children"].push_back(listed_json(partition, mounts));
        list.push_back(std::move(json));
    }
    return document(std::move(list));
}

std::string enumeration_json(const std::vector<ConnectionGroup> &groups)
{
    Json list = Json::array();
    for (const ConnectionGroup &group : groups) {
        for (const Drive &drive : group.drives) {
            Json json = enumerated_json(drive.device, false);
            for (const Device &partition : drive.partitions)
                json["children"].push_back(enumerated_json(partition, true));
            list.push_back(std::move(json));
        }
    }
    return document(std::move(list));
}
