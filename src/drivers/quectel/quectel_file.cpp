#include "drivers/quectel/quectel_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "comm/request.h"
#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/quectel/quectel.h"
#include "drivers/quectel/quectel_answer.h"
#include "ubus/modem_api.h"
#include "ubus/vocab.h"
#include "util/log.h"
#include "util/root_path.h"
#include "util/ujson.h"

using namespace quectel;

namespace
{

// Longest file name the modem is given. No bound is documented; 80 keeps
// every command that carries one ("AT+QFOTADL=\"/data/ufs/<name>\"") far
// below the command line length modules take, and is longer than any
// package name in use.
constexpr size_t name_max = 80;
// Longest router path of a file to upload.
constexpr size_t path_max = 255;
// Where the module keeps UFS files in its own file system.
constexpr std::string_view ufs_dir = "/data/ufs/";
// The upload's time-out when the caller gives none: the bus call's own.
constexpr int32_t upload_timeout_default = 10;
constexpr int32_t upload_timeout_max = 3600;
// The module's error for a file it does not have. Its file error codes
// are not confirmed; 405 ("file not found") is the one matched.
constexpr int cme_no_such_file = 405;

enum class prefix { refused, allowed };

// A name the modem stores: not empty, not "." or "..", no quote, control
// character, path separator or colon, at most name_max bytes. With prefixes
// allowed, one storage prefix "UFS:", "RAM:" or "SD:" may lead. With
// wildcards, '*' may stand anywhere in the name.
bool valid_name(std::string_view name, prefix p, bool wildcards = false)
{
    if (p == prefix::allowed) {
        for (std::string_view s : {"UFS:", "RAM:", "SD:"}) {
            if (name.starts_with(s)) {
                name.remove_prefix(s.size());
                break;
            }
        }
    }
    if (name.empty() || name.size() > name_max || name == "." || name == "..")
        return false;
    for (char c : name) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f || c == '"' || c == '/' || c == '\\' || c == ':' || (c == '*' && !wildcards))
            return false;
    }
    return true;
}

// An absolute router path with no "." or ".." component.
bool valid_router_path(std::string_view path)
{
    if (!path.starts_with('/'))
        return false;
    while (!path.empty()) {
        path.remove_prefix(1);
        size_t end = path.find('/');
        std::string_view part = path.substr(0, end);
        if (part == "." || part == "..")
            return false;
        if (end == std::string_view::npos)
            break;
        path.remove_prefix(end);
    }
    return true;
}

// What the upload's parse needs of its build.
struct upload_info {
    char name[name_max + 1];
};

} // namespace

int get_file_list(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        const char *pattern = args.opt_text("path", name_max + 4);
        if (!args.ok())
            return args.status();
        if (!*pattern)
            pattern = "*";
        if (!valid_name(pattern, prefix::allowed, true))
            return ACT_STATUS_INVALID_ARGS;
        return set_commandf(req, "AT+QFLST=\"%s\"\r", pattern);
    }
    if (cme_error(answer(mdm)) != cme_no_such_file && !answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;

    void *list = json->open_array("files");
    for_each_tagged(answer(mdm), "+QFLST", [json](const fields &f) {
        if (f.size() < 2 || !has_value(f[0]))
            return;
        void *row = json->open_table(nullptr);
        reply_text(json, "name", f[0]);
        int64_t size;
        if (to_number(f[1], size, 0, INT64_MAX))
            json->add_long("size", size);
        json->close_table(row);
    });
    json->close_array(list);
    return ACT_STATUS_OK;
}

int delete_file(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        const char *name = args.text("path", name_max + 4);
        if (!args.ok())
            return args.status();
        // "*" would empty the whole storage (a pending firmware package
        // with it): files are deleted one by one, by name.
        if (!valid_name(name, prefix::allowed))
            return ACT_STATUS_INVALID_ARGS;
        return set_commandf(req, "AT+QFDEL=\"%s\"\r", name);
    }
    return result_status(mdm);
}

int get_storage_space(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        uint32_t storage = args.opt_keyword("storage", storage_type_enum);
        if (!args.ok())
            return args.status();
        return set_commandf(req, "AT+QFLDS=\"%s\"\r", storage_type_str(storage ? storage : 1));
    }
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    fields f = tagged_fields(answer(mdm), "+QFLDS");
    int64_t free_bytes, total;
    if (!to_number(field_at(f, 0), free_bytes, 0, INT64_MAX) || !to_number(field_at(f, 1), total, 0, INT64_MAX))
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_long("free", free_bytes);
    json->add_long("total", total);
    return ACT_STATUS_OK;
}

int upload_file(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        const char *path = args.text("path", path_max);
        int32_t size = args.number("size", 1, INT32_MAX);
        int32_t timeout = args.opt_number("timeout", 1, upload_timeout_max, upload_timeout_default);
        if (!args.ok() || !req)
            return ACT_STATUS_INVALID_ARGS;
        std::string_view local(path);
        std::string_view base = local.substr(local.rfind('/') + 1);
        if (!valid_router_path(local) || !valid_name(base, prefix::refused))
            return ACT_STATUS_INVALID_ARGS;

        std::string full = wwan_path(local);
        int fd = open(full.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        struct stat st{};
        if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size != size) {
            LOG_DEBUG("[QUECTEL_DRIVER] Upload of `%s`: not a file of %d bytes\n", full.c_str(), size);
            if (fd >= 0)
                close(fd);
            return ACT_STATUS_INVALID_ARGS;
        }
        // Only a report of this upload counts.
        cache_drop(mdm, qfupl_size_key);
        cache_drop(mdm, qfupl_checksum_key);
        // From here the request owns the file and closes it, whatever happens.
        req->source = request_source(fd, static_cast<uint64_t>(size), static_cast<uint32_t>(timeout) * 1000);
        upload_info info{};
        std::memcpy(info.name, base.data(), base.size());
        if (int rc = set_extra(req, info))
            return rc;
        // Ended by CR alone: a byte after it would be taken for data.
        return set_commandf(req, "AT+QFUPL=\"%.*s\",%d,%d\r", static_cast<int>(base.size()), base.data(), size,
                            timeout);
    }
    // The modem's report (+QFUPL: <size>,<checksum>) comes as an unsolicited
    // line in front of the OK; its handler raised the upload event and left
    // the values in the cache.
    int32_t size = cached_int(mdm, qfupl_size_key, -1);
    int32_t checksum = cached_int(mdm, qfupl_checksum_key, -1);
    cache_drop(mdm, qfupl_size_key);
    cache_drop(mdm, qfupl_checksum_key);
    if (!answer_ok(mdm) || size < 0 || checksum < 0)
        return ACT_STATUS_INVALID_RESPONSE;
    // What the modem stored must be what was sent, byte for byte.
    const request_source &src = req->source;
    if (static_cast<uint64_t>(size) != src.size || src.written != src.size ||
        static_cast<uint32_t>(checksum) != src.checksum) {
        LOG_ERROR("[QUECTEL_DRIVER] Upload mismatch: modem %d bytes, checksum %04x; sent %" PRIu64
                  " bytes, checksum %04x\n",
                  size, checksum, src.written, src.checksum);
        return ACT_STATUS_INVALID_RESPONSE;
    }
    const upload_info *info = get_extra<upload_info>(req);
    if (info)
        reply_text(json, "name", info->name);
    json->add_long("size", size);
    json->add_int("checksum", checksum);
    return ACT_STATUS_OK;
}

int dfota_upgrade(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        const char *path = args.text("path", ufs_dir.size() + name_max);
        if (!args.ok())
            return args.status();
        std::string_view p(path);
        // A package on the module's UFS only: the URL forms some firmware is
        // said to take are unconfirmed, and would send the module out to
        // fetch whatever the caller names.
        if (p.starts_with(ufs_dir))
            p.remove_prefix(ufs_dir.size());
        else if (p.starts_with("UFS:"))
            p.remove_prefix(4);
        if (!valid_name(p, prefix::refused))
            return ACT_STATUS_INVALID_ARGS;
        return set_commandf(req, "AT+QFOTADL=\"%.*s%.*s\"\r", static_cast<int>(ufs_dir.size()), ufs_dir.data(),
                            static_cast<int>(p.size()), p.data());
    }
    return result_status(mdm);
}

int quectel_file_probe(modem_driver *driver)
{
    modem_driver_override(driver, ACT_GET_FILE_LIST, get_file_list);
    modem_driver_override(driver, ACT_DELETE_FILE, delete_file);
    modem_driver_override(driver, ACT_GET_STORAGE_SPACE, get_storage_space);
    modem_driver_override(driver, ACT_UPLOAD_FILE, upload_file);
    modem_driver_override(driver, ACT_DFOTA_UPGRADE, dfota_upgrade);
    return 0;
}
