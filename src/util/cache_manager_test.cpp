#include "util/cache_manager.h"

#include "util/services_test_support.h"
#include "util/ujson.h"

#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using namespace services_test;

template <typename T> std::string bytes(T v)
{
    return std::string(reinterpret_cast<const char *>(&v), sizeof(v));
}

// Text with its terminator, as writers store it.
std::string text(const char *s)
{
    return std::string(s, std::strlen(s) + 1);
}

int32_t cost(const char *name, size_t size)
{
    return static_cast<int32_t>(size + 25 + std::strlen(name));
}

TEST(CacheUpdate, ResultAndHeapFollowTheBytes)
{
    struct row {
        const char *what;
        uint32_t type0;
        std::string value0;
        uint32_t type1;
        std::string value1;
        int result;
        int heap_delta;
    };
    // clang-format off
    const row rows[] = {
        {"identical bytes", CACHE_DATA_INT32, bytes<int32_t>(-70), CACHE_DATA_INT32, bytes<int32_t>(-70), CACHE_ITEM_UNCHANGED, 0},
        {"last byte differs", CACHE_DATA_INT64, bytes<int64_t>(0x0102030405060708), CACHE_DATA_INT64, bytes<int64_t>(0x0102030405060709), CACHE_ITEM_CHANGED, 0},
        {"same text", CACHE_DATA_STRING, text("LTE"), CACHE_DATA_STRING, text("LTE"), CACHE_ITEM_UNCHANGED, 0},
        {"text grows", CACHE_DATA_STRING, text("LTE"), CACHE_DATA_STRING, text("WCDMA"), CACHE_ITEM_CHANGED, 2},
        {"text shrinks", CACHE_DATA_STRING, text("WCDMA"), CACHE_DATA_STRING, text("LTE"), CACHE_ITEM_CHANGED, -2},
        {"same bytes, other type", CACHE_DATA_INT32, bytes<int32_t>(5), CACHE_DATA_UINT32, bytes<int32_t>(5), CACHE_ITEM_CHANGED, 0},
        {"wider integer", CACHE_DATA_INT32, bytes<int32_t>(5), CACHE_DATA_INT64, bytes<int64_t>(5), CACHE_ITEM_CHANGED, 4},
        {"double to flag", CACHE_DATA_DOUBLE, bytes(1.5), CACHE_DATA_BOOL, "\1", CACHE_ITEM_CHANGED, -7},
    };
    // clang-format on
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        auto cache = cache_manager::create();
        ASSERT_TRUE(cache);
        ASSERT_EQ(cache->update_item("net", r.type0, r.value0.data(), r.value0.size()), CACHE_ITEM_CHANGED);
        ASSERT_EQ(cache->heap_usage(), 40 + cost("net", r.value0.size()));

        EXPECT_EQ(cache->update_item("net", r.type1, r.value1.data(), r.value1.size()), r.result);
        EXPECT_EQ(cache->heap_usage(), 40 + cost("net", r.value0.size()) + r.heap_delta);
        EXPECT_EQ(cache->item_count(), 1);
        const cache_item *item = cache->get_item("net");
        ASSERT_TRUE(item);
        EXPECT_EQ(item->type(), r.type1);
        EXPECT_EQ(std::string(static_cast<const char *>(item->value()), item->size()), r.value1);
    }
}

TEST(CacheUpdate, StructuredValueIsClonedAndAlwaysChanges)
{
    auto cache = cache_manager::create();
    ASSERT_TRUE(cache);
    auto value = from_json(R"({"sim":1,"state":"ready"})");
    ASSERT_EQ(cache->update_item("sim", CACHE_DATA_UJSON, value.get(), 0), CACHE_ITEM_CHANGED);
    value->add_int("extra", 1);
    ASSERT_TRUE(cache->get_item("sim")->json());
    EXPECT_EQ(json_text(*cache->get_item("sim")->json()), R"({"sim":1,"state":"ready"})");

    auto same = from_json(R"({"sim":1,"state":"ready"})");
    EXPECT_EQ(cache->update_item("sim", CACHE_DATA_UJSON, same.get(), 0), CACHE_ITEM_CHANGED);
    int32_t n = 3;
    EXPECT_EQ(cache->update_item("sim", CACHE_DATA_INT32, &n, sizeof(n)), CACHE_ITEM_CHANGED);
    EXPECT_EQ(cache->get_item("sim")->json(), nullptr);
    EXPECT_EQ(cache->get_item("sim")->get<int32_t>(), 3);
    EXPECT_EQ(cache->update_item("sim", CACHE_DATA_UJSON, same.get(), 0), CACHE_ITEM_CHANGED);
    EXPECT_EQ(cache->item_count(), 1);
    EXPECT_EQ(cache->heap_usage(), 40 + cost("sim", 0));
}

enum class op { add, lookup, remove, remove_found, stats };

// One cache through a sequence of steps; lookups give the item's text, stats the whole reply.
TEST(CacheItems, LookupRemovalAndStats)
{
    const char *const none = "(none)";
    struct step {
        op act;
        const char *name;
        uint32_t type;
        std::string value; // CACHE_DATA_UJSON: the value as JSON
        const char *expect;
    };
    // clang-format off
    const step steps[] = {
        {op::stats, "", 0, "", R"({"cache":{},"cache_stats":{"heap_usage":"40 B","item_count":0}})"},
        {op::add, "operator", CACHE_DATA_STRING, text("first"), nullptr},
        {op::add, "operator", CACHE_DATA_STRING, text("second"), nullptr},
        {op::add, "rssi_value", CACHE_DATA_INT32, bytes<int32_t>(-71), nullptr},
        {op::lookup, "operator", 0, "", "first"},
        {op::lookup, "Operator", 0, "", none},
        {op::lookup, "operato", 0, "", none},
        {op::lookup, "operator_scan", 0, "", none},
        {op::lookup, "", 0, "", none},
        {op::remove, "absent", 0, "", nullptr},
        {op::remove_found, "absent", 0, "", nullptr},
        {op::remove, "operator", 0, "", nullptr},
        {op::lookup, "operator", 0, "", "second"},
        {op::stats, "", 0, "", R"({"cache":{"operator":"second","rssi_value":-71},"cache_stats":{"heap_usage":"119 B","item_count":2}})"},
        {op::remove_found, "rssi_value", 0, "", nullptr}, // the last item: the next add goes after "operator"
        {op::add, "firmware", CACHE_DATA_STRING, text("EC25EFAR06A06M4G"), nullptr},
        {op::remove, "operator", 0, "", nullptr},
        {op::add, "temperature", CACHE_DATA_DOUBLE, bytes(-3.5), nullptr},
        {op::add, "rssi_value", CACHE_DATA_INT32, bytes<int32_t>(-71), nullptr},
        {op::add, "reg_ci", CACHE_DATA_UINT32, bytes<uint32_t>(0x8000000A), nullptr},
        {op::add, "lte_bands", CACHE_DATA_INT64, bytes<int64_t>(0x100000004), nullptr},
        {op::add, "counter", CACHE_DATA_UINT64, bytes<uint64_t>(5), nullptr},
        {op::add, "volte", CACHE_DATA_BOOL, "\2", nullptr},
        {op::add, "sim_cfg", CACHE_DATA_UJSON, R"({"slot":1,"ids":["a","b"]})", nullptr},
        {op::add, "odd", 9, text("x"), nullptr}, // an unknown kind is counted, not shown
        // 40 + 50 + 44 + 39 + 35 + 42 + 40 + 31 + 32 + 30
        {op::stats, "", 0, "", R"({"cache":{"firmware":"EC25EFAR06A06M4G","temperature":-3.500000,"rssi_value":-71,"reg_ci":-2147483638,)"
                               R"("lte_bands":4294967300,"counter":5,"volte":true,"sim_cfg":{"slot":1,"ids":["a","b"]}},)"
                               R"("cache_stats":{"heap_usage":"383 B","item_count":9}})"},
    };
    // clang-format on
    auto cache = cache_manager::create();
    ASSERT_TRUE(cache);
    for (const step &s : steps) {
        SCOPED_TRACE(std::to_string(&s - steps) + ": " + s.name);
        std::string out;
        switch (s.act) {
        case op::add: {
            auto json = s.type == CACHE_DATA_UJSON ? from_json(s.value.c_str()) : nullptr;
            const void *value = json ? static_cast<const void *>(json.get()) : s.value.data();
            ASSERT_EQ(cache->new_item(s.name, s.type, value, json ? 0 : s.value.size()), 0);
            break;
        }
        case op::lookup:
            out = cache->get_item(s.name) ? cache->get_item(s.name)->text() : none;
            break;
        case op::remove:
            cache->remove_item_name(s.name);
            break;
        case op::remove_found:
            cache->remove_item(cache->get_item(s.name));
            break;
        case op::stats: {
            auto reply = ujson::create();
            ASSERT_TRUE(reply);
            cache->fill_stats(*reply);
            out = json_text(*reply);
            break;
        }
        }
        if (s.expect) {
            EXPECT_EQ(out, s.expect);
        }
    }
}

TEST(CacheStats, HeapUsageInBytesUpToOneKilobyte)
{
    struct row {
        int32_t heap;
        const char *text;
    };
    const row rows[] = {{1024, "1024 B"}, {1025, "1 KB"}, {2048, "2 KB"}};
    for (const row &r : rows) {
        SCOPED_TRACE(r.text);
        auto cache = cache_manager::create();
        ASSERT_TRUE(cache);
        std::string pad(static_cast<size_t>(r.heap - 40 - cost("x", 1)), 'a');
        ASSERT_EQ(cache->new_item("x", CACHE_DATA_STRING, pad.c_str(), pad.size() + 1), 0);
        ASSERT_EQ(cache->heap_usage(), r.heap);
        auto out = ujson::create();
        ASSERT_TRUE(out);
        cache->fill_stats(*out);
        EXPECT_NE(json_text(*out).find(std::string(R"("heap_usage":")") + r.text + "\""), std::string::npos);
    }
}

} // namespace
