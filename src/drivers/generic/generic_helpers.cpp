#include "drivers/generic/generic_helpers.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "wwan/ubox.h"

#include "comm/at_command.h"
#include "comm/request.h"
#include "core/modem.h"
#include "util/cache_manager.h"
#include "util/ujson.h"

// --- arguments ----------------------------------------------------------------------

bool act_args::has(const char *name) const
{
    return json_ && json_->exists(name);
}

const char *act_args::checked(const char *name, size_t max_len, bool required)
{
    if (!has(name)) {
        if (required)
            ok_ = false;
        return "";
    }
    const char *value = json_->get_string(name);
    if (!value || !at_check_arg(value, max_len)) {
        ok_ = false;
        return "";
    }
    return value;
}

const char *act_args::text(const char *name, size_t max_len)
{
    return checked(name, max_len, true);
}

const char *act_args::opt_text(const char *name, size_t max_len)
{
    return checked(name, max_len, false);
}

std::vector<std::string_view> act_args::texts(const char *name, size_t max_items, size_t max_len, bool optional)
{
    std::vector<std::string_view> out;
    blob_attr *array = nullptr;
    if (json_) {
        blob_attr *cur;
        size_t rem;
        blobmsg_for_each_attr(cur, json_->get_blobmsg(), rem)
        {
            if (blobmsg_type(cur) == BLOBMSG_TYPE_ARRAY && strcmp(blobmsg_name(cur), name) == 0) {
                array = cur;
                break;
            }
        }
    }
    if (!array) {
        ok_ = ok_ && optional && !has(name);
        return out;
    }
    blob_attr *item;
    size_t rem;
    blobmsg_for_each_attr(item, array, rem)
    {
        const char *value = blobmsg_type(item) == BLOBMSG_TYPE_STRING ? blobmsg_get_string(item) : nullptr;
        if (!value || out.size() == max_items || !at_check_arg(value, max_len)) {
            ok_ = false;
            out.clear();
            return out;
        }
        out.emplace_back(value);
    }
    return out;
}

int32_t act_args::number(const char *name, int32_t lo, int32_t hi)
{
    if (!has(name)) {
        ok_ = false;
        return lo;
    }
    return opt_number(name, lo, hi, lo);
}

int32_t act_args::opt_number(const char *name, int32_t lo, int32_t hi, int32_t def)
{
    if (!has(name))
        return def;
    int32_t value = json_->get_int(name);
    if (value < lo || value > hi) {
        ok_ = false;
        return lo;
    }
    return value;
}

bool act_args::flag(const char *name, bool def) const
{
    return has(name) ? json_->get_bool(name) : def;
}

uint32_t act_args::keyword(const char *name, vocab_enum_fn arg_enum)
{
    if (!has(name)) {
        ok_ = false;
        return 0;
    }
    return opt_keyword(name, arg_enum);
}

uint32_t act_args::opt_keyword(const char *name, vocab_enum_fn arg_enum)
{
    if (!has(name))
        return 0;
    const char *value = json_->get_string(name);
    uint32_t id = value ? arg_enum(value) : 0;
    if (id == 0)
        ok_ = false;
    return id;
}

// --- commands -----------------------------------------------------------------------

int set_command(request *req, std::string_view command)
{
    if (!req)
        return ACT_STATUS_INVALID_ARGS;
    char *copy = static_cast<char *>(std::malloc(command.size() + 1));
    if (!copy)
        return ACT_STATUS_NO_MEMORY;
    std::memcpy(copy, command.data(), command.size());
    copy[command.size()] = '\0';
    std::free(req->command);
    req->command = copy;
    req->length = static_cast<uint32_t>(command.size());
    return ACT_STATUS_OK;
}

int set_extra_bytes(request *req, const void *data, size_t size)
{
    if (!req)
        return ACT_STATUS_INVALID_ARGS;
    void *copy = std::malloc(size);
    if (!copy)
        return ACT_STATUS_NO_MEMORY;
    std::memcpy(copy, data, size);
    std::free(req->extra);
    req->extra = copy;
    return ACT_STATUS_OK;
}

const void *extra_bytes(const request *req)
{
    return req ? req->extra : nullptr;
}

int set_commandf(request *req, const char *fmt, ...)
{
    if (!req)
        return ACT_STATUS_INVALID_ARGS;
    va_list ap;
    va_start(ap, fmt);
    va_list again;
    va_copy(again, ap);
    int len = std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    char *text = len >= 0 ? static_cast<char *>(std::malloc(static_cast<size_t>(len) + 1)) : nullptr;
    if (text)
        std::vsnprintf(text, static_cast<size_t>(len) + 1, fmt, again);
    va_end(again);
    if (!text)
        return ACT_STATUS_NO_MEMORY;
    std::free(req->command);
    req->command = text;
    req->length = static_cast<uint32_t>(len);
    return ACT_STATUS_OK;
}

// --- answers ---------------------------------------------------------------------------

std::string_view answer(const modem *mdm)
{
    if (!mdm || !mdm->response())
        return {};
    return {mdm->response(), mdm->response_len()};
}

bool answer_ok(const modem *mdm)
{
    std::string_view text = answer(mdm);
    return !text.empty() && is_response_valid(text.data(), text.size());
}

int result_status(const modem *mdm)
{
    return answer_ok(mdm) ? ACT_STATUS_OK : ACT_STATUS_INVALID_RESPONSE;
}

int scan(std::string_view text, const char *fmt, ...)
{
    // Answers are short; a terminated copy keeps sscanf inside the text.
    char small[512];
    std::string large;
    const char *src;
    if (text.size() < sizeof(small)) {
        if (!text.empty()) // an empty view may have no data at all
            std::memcpy(small, text.data(), text.size());
        small[text.size()] = '\0';
        src = small;
    } else {
        large.assign(text);
        src = large.c_str();
    }
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsscanf(src, fmt, ap);
    va_end(ap);
    return n < 0 ? 0 : n;
}

std::string_view from_line(std::string_view text, std::string_view prefix)
{
    for (size_t pos = 0; (pos = text.find(prefix, pos)) != std::string_view::npos; pos++) {
        if (pos >= 2 && text[pos - 2] == '\r' && text[pos - 1] == '\n')
            return text.substr(pos - 2);
        if (pos == 0)
            return text;
    }
    return {};
}

std::string_view first_line(std::string_view text)
{
    // ATV1 frames lines as "\r\n<line>\r\n", ATV0 as "<line>\r\n"; the
    // numeric final result "0\r" has no line feed.
    if (text.starts_with("\r\n"))
        text.remove_prefix(2);
    size_t end = text.find("\r\n");
    if (end == std::string_view::npos)
        return {};
    std::string_view line = text.substr(0, end);
    if (line == "OK" || line == "ERROR" || line.starts_with("+CME ERROR") || line.starts_with("+CMS ERROR"))
        return {};
    return line;
}

std::string_view line_value(std::string_view text, std::string_view prefix)
{
    size_t pos = text.find(prefix);
    if (pos == std::string_view::npos)
        return {};
    std::string_view value = text.substr(pos + prefix.size());
    value = value.substr(0, value.find('\r'));
    while (value.ends_with(' '))
        value.remove_suffix(1);
    return value;
}

void split_parts(std::string_view text, std::string_view *first, std::string_view *second)
{
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find("\r\n", pos);
        std::string_view line = text.substr(pos, end == std::string_view::npos ? end : end - pos);
        // With ATV0 a numeric result ("0\r", "4\r") runs into the next answer.
        bool numeric = line.size() >= 2 && (line[0] == '0' || line[0] == '4') && line[1] == '\r';
        if (numeric || line == "OK" || line == "ERROR" || line.starts_with("+CME ERROR:") ||
            line.starts_with("+CMS ERROR:")) {
            size_t cut = numeric ? pos + 2 : end == std::string_view::npos ? text.size() : end + 2;
            *first = text.substr(0, cut);
            *second = text.substr(cut);
            return;
        }
        if (end == std::string_view::npos)
            break;
        pos = end + 2;
    }
    *first = text;
    *second = {};
}

std::string_view unquote(std::string_view text)
{
    if (text.starts_with('"'))
        text.remove_prefix(1);
    if (text.ends_with('"'))
        text.remove_suffix(1);
    return text;
}

size_t split_fields(std::string_view line, std::string_view *fields, size_t max)
{
    size_t n = 0;
    while (n < max) {
        size_t comma = n + 1 < max ? line.find(',') : std::string_view::npos;
        fields[n++] = unquote(line.substr(0, comma));
        if (comma == std::string_view::npos)
            break;
        line.remove_prefix(comma + 1);
    }
    return n;
}

// --- replies and cache ----------------------------------------------------------------

void reply_enum(ujson *json, const char *key, uint32_t id, vocab_str_fn str)
{
    char id_key[64];
    std::snprintf(id_key, sizeof(id_key), "%s_id", key);
    json->add_int(id_key, static_cast<int32_t>(id));
    json->add_string(key, str(id));
}

void reply_text(ujson *json, const char *key, std::string_view text)
{
    std::string copy(text);
    json->add_string(key, copy.c_str());
}

void reply_raw(ujson *json, const modem *mdm)
{
    reply_text(json, "response", answer(mdm));
}

void cache_text(modem *mdm, const char *key, std::string_view text)
{
    if (cache_manager *cache = mdm->cache()) {
        std::string copy(text);
        cache->update_item(key, CACHE_DATA_STRING, copy.c_str(), static_cast<uint32_t>(copy.size() + 1));
    }
}

void cache_int(modem *mdm, const char *key, int32_t value)
{
    if (cache_manager *cache = mdm->cache())
        cache->update_item(key, CACHE_DATA_INT32, &value, sizeof(value));
}

void cache_drop(modem *mdm, const char *key)
{
    if (cache_manager *cache = mdm->cache())
        cache->remove_item_name(key);
}

const char *cached_text(const modem *mdm, const char *key)
{
    const cache_item *item = mdm->cache() ? mdm->cache()->get_item(key) : nullptr;
    return item ? item->text() : nullptr;
}

int32_t cached_int(const modem *mdm, const char *key, int32_t def)
{
    const cache_item *item = mdm->cache() ? mdm->cache()->get_item(key) : nullptr;
    if (!item || (item->type() != CACHE_DATA_INT32 && item->type() != CACHE_DATA_UINT32))
        return def;
    return item->get<int32_t>();
}

void update_registration(modem *mdm)
{
    mdm->refresh(ACT_GET_NET_REG_STAT_ALL, nullptr);
}

// --- common shapes ----------------------------------------------------------------------

int simple_command(modem *mdm, int type, request *req, const char *command)
{
    if (type == 0)
        return set_command(req, command);
    return result_status(mdm);
}

int set_keyword(modem *mdm, int type, ujson *json, request *req, const char *fmt, const char *arg,
                vocab_enum_fn arg_enum)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t id = args.keyword(arg, arg_enum);
    if (!args.ok())
        return args.status();
    return set_commandf(req, fmt, id - 1);
}

int query_enum(modem *mdm, int type, ujson *json, request *req, const char *command, const char *pattern,
               const char *key, vocab_str_fn str)
{
    if (type == 0)
        return set_command(req, command);
    int value;
    if (!answer_ok(mdm) || scan(answer(mdm), pattern, &value) != 1 || value < 0)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, key, static_cast<uint32_t>(value) + 1, str);
    return ACT_STATUS_OK;
}
