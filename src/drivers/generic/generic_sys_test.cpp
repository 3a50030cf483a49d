#include "drivers/generic/generic_sys.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "comm/request.h"
#include "core/modem.h"
#include "core/modem_info.h"
#include "util/cache_manager.h"
#include "util/ujson.h"

namespace
{

// A modem record as driver functions see it: identity, table row, cache and
// the answer being parsed.
class GenericSysTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        cache = cache_manager::create();
        ASSERT_TRUE(cache);
        mdm.set_identity("1-1.2", "2C7C:0125");
        mdm.set_cache(cache.get());
        reply = ujson::create();
        ASSERT_TRUE(reply);
    }
    void TearDown() override { std::free(req.command); }

    // Build phase: the command text the action composes.
    std::string build(act_func fn)
    {
        EXPECT_EQ(fn(&mdm, 0, nullptr, &req), ACT_STATUS_OK);
        return req.command ? std::string(req.command, req.length) : std::string();
    }
    // Parse phase over a captured answer.
    int parse(act_func fn, const std::string &answer)
    {
        response = answer;
        mdm.set_response(response.data(), response.size());
        return fn(&mdm, 1, reply.get(), &req);
    }
    std::string cached(const char *key)
    {
        const cache_item *item = cache->get_item(key);
        return item && item->text() ? item->text() : "<none>";
    }
    std::string field(const char *key) { return reply->exists(key) ? reply->get_string(key) : "<none>"; }

    modem mdm;
    std::unique_ptr<cache_manager> cache;
    std::unique_ptr<ujson> reply;
    request req;
    std::string response;
};

// Captured from an EC25-E, firmware EC25EFAR06A06M4G.
const char ec25_gmr[] = "\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n";
const char ec25_gsn[] = "\r\n866758041234564\r\n\r\nOK\r\n";
const char cme_error[] = "\r\n+CME ERROR: 10\r\n";
const char plain_error[] = "\r\nERROR\r\n";

TEST_F(GenericSysTest, ProbeInstallsTheFourActions)
{
    modem_driver drv = {"Test AT", "test", nullptr, nullptr};
    EXPECT_EQ(generic_sys_probe(&drv), 0);
    EXPECT_EQ(drv.funcs[ACT_GET_FIRMWARE], &get_firmware);
    EXPECT_EQ(drv.funcs[ACT_GET_IMEI], &get_imei);
    EXPECT_EQ(drv.funcs[ACT_GET_ID_INFO], &get_id_info);
    EXPECT_EQ(drv.funcs[ACT_GET_SN], &get_sn);
    EXPECT_EQ(drv.funcs[ACT_GET_IMSI], nullptr);
}

TEST_F(GenericSysTest, RegisteredGenericDriverCarriesThem)
{
    modem_driver *generic = modem_driver_by_id("generic");
    ASSERT_NE(generic, nullptr);
    for (uint32_t act : {ACT_GET_FIRMWARE, ACT_GET_IMEI, ACT_GET_ID_INFO, ACT_GET_SN})
        EXPECT_EQ(modem_driver_check_func(generic, act), 1) << act;
    // Inherited by a model driver that does not replace them.
    EXPECT_EQ(modem_driver_check_func(modem_driver_by_id("quectel,ec25"), ACT_GET_IMEI), 1);
}

TEST_F(GenericSysTest, FirmwareAsksGmrAndCachesTheRevision)
{
    EXPECT_EQ(build(get_firmware), "AT+GMR\r");
    ASSERT_EQ(parse(get_firmware, ec25_gmr), ACT_STATUS_OK);
    EXPECT_EQ(field("firmware"), "EC25EFAR06A06M4G");
    EXPECT_EQ(cached("firmware"), "EC25EFAR06A06M4G");
}

TEST_F(GenericSysTest, FirmwareAcceptsNumericResultCode)
{
    // ATV0: the text ends in CR LF and the final result is "0\r".
    ASSERT_EQ(parse(get_firmware, "EC21EUGAR06A04M4G\r\n0\r"), ACT_STATUS_OK);
    EXPECT_EQ(field("firmware"), "EC21EUGAR06A04M4G");
    // "4\r" is the numeric ERROR.
    EXPECT_EQ(parse(get_firmware, "4\r"), ACT_STATUS_INVALID_RESPONSE);
}

TEST_F(GenericSysTest, FirmwareErrorsAreInvalidResponses)
{
    for (const char *text : {cme_error, plain_error, "", "\r\nOK\r\n"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(parse(get_firmware, text), ACT_STATUS_INVALID_RESPONSE);
    }
    EXPECT_EQ(field("firmware"), "<none>");
    EXPECT_EQ(cached("firmware"), "<none>");
}

TEST_F(GenericSysTest, ImeiIsTheDecimalNumber)
{
    EXPECT_EQ(build(get_imei), "AT+GSN\r");
    ASSERT_EQ(parse(get_imei, ec25_gsn), ACT_STATUS_OK);
    EXPECT_EQ(field("imei"), "866758041234564");
}

TEST_F(GenericSysTest, ImeiRejectsErrorsAndText)
{
    EXPECT_EQ(parse(get_imei, cme_error), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_EQ(parse(get_imei, plain_error), ACT_STATUS_INVALID_RESPONSE);
    // A serial-number style answer is not an IMEI.
    EXPECT_EQ(parse(get_imei, "\r\nMPY22GB0A2345\r\n\r\nOK\r\n"), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_EQ(field("imei"), "<none>");
}

TEST_F(GenericSysTest, SerialIsTheFirstWordAndIsCached)
{
    EXPECT_EQ(build(get_sn), "AT+GSN\r");
    ASSERT_EQ(parse(get_sn, "\r\nMPY22GB0A2345\r\n\r\nOK\r\n"), ACT_STATUS_OK);
    EXPECT_EQ(field("serial"), "MPY22GB0A2345");
    EXPECT_EQ(cached("serial_num"), "MPY22GB0A2345");
    ASSERT_EQ(parse(get_sn, ec25_gsn), ACT_STATUS_OK);
    EXPECT_EQ(cached("serial_num"), "866758041234564");
}

TEST_F(GenericSysTest, SerialKeepsAtMost31Characters)
{
    std::string longer(40, 'A');
    ASSERT_EQ(parse(get_sn, "\r\n" + longer + "\r\n\r\nOK\r\n"), ACT_STATUS_OK);
    EXPECT_EQ(field("serial"), std::string(31, 'A'));
}

TEST_F(GenericSysTest, SerialErrorLeavesCacheAlone)
{
    EXPECT_EQ(parse(get_sn, cme_error), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_EQ(cached("serial_num"), "<none>");
}

TEST_F(GenericSysTest, IdInfoComesFromTheTableRowAndCachedFirmware)
{
    mdm.set_info(&g_midata[2]); // EC25-E
    ASSERT_EQ(parse(get_firmware, ec25_gmr), ACT_STATUS_OK);
    reply = ujson::create();
    // No command is built: the action answers at once, in either phase.
    ASSERT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), ACT_STATUS_OK);
    EXPECT_EQ(field("manuf"), "Quectel");
    EXPECT_EQ(field("model"), "EC25-E");
    EXPECT_EQ(field("firmware"), "EC25EFAR06A06M4G");
    EXPECT_EQ(field("raw"), "\r\nQuectel\r\nEC25-E\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n");
}

TEST_F(GenericSysTest, IdInfoWithoutVariantNamesTheModelAlone)
{
    mdm.set_info(&g_midata[35]); // BG96
    ASSERT_EQ(cache->update_item("firmware", CACHE_DATA_STRING, "BG96MAR02A07M1G", 16), CACHE_ITEM_CHANGED);
    ASSERT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), ACT_STATUS_OK);
    EXPECT_EQ(field("model"), "BG96");
}

TEST_F(GenericSysTest, IdInfoIsStatusOneWhileSomethingIsUnknown)
{
    // No row, no firmware.
    EXPECT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), 1);
    // The "Unknown" row has no model.
    mdm.set_info(&g_midata[0]);
    ASSERT_EQ(cache->update_item("firmware", CACHE_DATA_STRING, "X", 2), CACHE_ITEM_CHANGED);
    EXPECT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), 1);
    // A known row but no firmware yet.
    cache->remove_item_name("firmware");
    mdm.set_info(&g_midata[1]);
    EXPECT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), 1);
    EXPECT_EQ(field("raw"), "<none>");
}

TEST_F(GenericSysTest, RawTextIsCutTo128Bytes)
{
    mdm.set_info(&g_midata[1]);
    std::string firmware(200, 'F');
    ASSERT_EQ(cache->update_item("firmware", CACHE_DATA_STRING, firmware.c_str(), 201), CACHE_ITEM_CHANGED);
    ASSERT_EQ(get_id_info(&mdm, 1, reply.get(), nullptr), ACT_STATUS_OK);
    EXPECT_EQ(field("raw").size(), 127u);
    EXPECT_EQ(field("firmware"), firmware);
}

} // namespace
