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
static std::string text_of(const Json &json)
{
    return json.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

static std::string document(Json drives)
{
    return text_of({{"blockdevices", std::move(drives)}});
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

static Json busy_device_json(const BusyDevice &device)
{
    Json mounts = Json::array();
    for (const BusyDevice::Mount &mount : device.mounts)
        mounts.push_back({{"mountpoint", mount.mountpoint},
                          {"fstype", mount.fstype},
                          {"read_only", mount.is_read_only}});
    return {{"name", device.name},
            {"mounts", std::move(mounts)},
            {"cleared", text_or_null(device.cleared)},
            {"active_unmounted", device.is_active_unmounted}};
}

static Json holder_json(const Holder &holder)
{
    Json ended_by = Json::array();
    if (holder.is_ended_by_rudeoff)
        ended_by.push_back("rudeoff");
    if (holder.is_ended_by_rudero)
        ended_by.push_back("rudero");
    const bool is_process = holder.pid > 0;
    return {{"kind", holder.kind},
            {"device", holder.device},
            {"pid", is_process ? Json(holder.pid) : Json(nullptr)},
            {"uid", is_process ? Json(holder.uid) : Json(nullptr)},
            {"user", text_or_null(holder.user)},
            {"command", is_process ? Json(holder.command) : Json(nullptr)},
            {"what", holder.what},
            {"more", text_or_null(holder.more)},
            {"ended_by", std::move(ended_by)}};
}

std::string busy_json(const BusyReport &report)
{
    Json devices = Json::array();
    for (const BusyDevice &device : report.devices)
        devices.push_back(busy_device_json(device));
    Json holders = Json::array();
    for (const Holder &holder : report.holders)
        holders.push_back(holder_json(holder));
    return text_of({{"devices", std::move(devices)},
                    {"holders", std::move(holders)},
                    {"unseen_processes", report.unseen_processes},
                    {"unread_memory", report.unread_memory},
                    {"list_is_partial", report.is_list_partial}});
}

std::string findings_json(const Findings &findings)
{
    int counts[3] = {};
    Json list = Json::array();
    for (const Finding &finding : findings) {
        counts[finding.severity]++;
        list.push_back({{"severity", severity_word(finding.severity)},
                        {"code", finding.code},
                        {"place", finding.place},
                        {"line", finding.line > 0 ? Json(finding.line) : Json(nullptr)},
                        {"effect", finding.effect},
                        {"remedy", finding.remedy}});
    }
    return text_of({{"findings", std::move(list)},
                    {"errors", counts[SEVERITY_ERROR]},
                    {"warnings", counts[SEVERITY_WARNING]},
                    {"notes", counts[SEVERITY_NOTE]}});
}
