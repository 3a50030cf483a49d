// Modem information table: one constant row per supported modem variant with
// its identity (vendor, model, variant, USB ids, model type) and the model's
// capabilities. A modem is placed in the table in up to three steps: by its
// USB ids, then by its firmware text, then (model types 17 and 20) by its
// serial number. The row found chooses the driver and feeds the capability
// reports on the bus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

class ujson;

// Model types with identification rules of their own: SLM750 and SLM770 are
// told apart by serial number, SLM828G firmware reads "model-variant_suffix".
inline constexpr uint32_t MODEM_TYPE_SLM750 = 17;
inline constexpr uint32_t MODEM_TYPE_SLM828G = 18;
inline constexpr uint32_t MODEM_TYPE_SLM770 = 20;

// Feature bits (modem_info::features). Bit 7 is not assigned.
enum modem_feature : uint32_t {
    MODEM_FEATURE_IPV6 = 1u << 0,
    MODEM_FEATURE_VOLTE = 1u << 1,
    MODEM_FEATURE_MULTI_APN = 1u << 2,
    MODEM_FEATURE_OPERATOR_SCAN = 1u << 3,
    MODEM_FEATURE_DPO = 1u << 4,
    MODEM_FEATURE_RMNET = 1u << 5,
    MODEM_FEATURE_ECM = 1u << 6,
    MODEM_FEATURE_DYNAMIC_MTU = 1u << 8,
    MODEM_FEATURE_AUTO_IMS = 1u << 9,
    MODEM_FEATURE_DHCP_FILTER = 1u << 10,
    MODEM_FEATURE_EXTENDED_TIMEOUT = 1u << 11,
    MODEM_FEATURE_WWAN_GNSS_CONFLICT = 1u << 12,
    MODEM_FEATURE_CSD = 1u << 13,
    MODEM_FEATURE_MOBILE_DFOTA = 1u << 14,
    MODEM_FEATURE_AUTO_3G_BANDS = 1u << 15,
    MODEM_FEATURE_FRAMED_ROUTING = 1u << 16,
    MODEM_FEATURE_LOW_SIGNAL_RECONNECT = 1u << 17,
    MODEM_FEATURE_AUTO_5G_MODE = 1u << 18,
    MODEM_FEATURE_RED_CAP = 1u << 19,
    MODEM_FEATURE_NO_USSD = 1u << 20,
};

// NMEA sentence bits. The combined ones are the choices of receivers that
// configure a satellite system's output as one selector instead of a mask.
enum modem_gps_sentence : uint64_t {
    GPS_SENTENCE_GGA = 1u << 0,
    GPS_SENTENCE_RMC = 1u << 1,
    GPS_SENTENCE_GSV = 1u << 2,
    GPS_SENTENCE_GSA = 1u << 3,
    GPS_SENTENCE_VTG = 1u << 4,
    GPS_SENTENCE_GLL = 1u << 5,
    GPS_SENTENCE_GNS = 1u << 6,
    GPS_SENTENCE_GSV_GSA = 1u << 7,
    GPS_SENTENCE_GSV_GNS = 1u << 8,
    GPS_SENTENCE_GSA_GNS = 1u << 9,
    GPS_SENTENCE_GSA_GSV = 1u << 10,
    GPS_SENTENCE_GSV_GSA_GNS = 1u << 11,
};

// NMEA talker prefix bits.
enum modem_gps_prefix : uint64_t {
    GPS_PREFIX_GP = 1u << 0,
    GPS_PREFIX_GA = 1u << 1,
    GPS_PREFIX_GL = 1u << 2,
    GPS_PREFIX_GN = 1u << 3,
    GPS_PREFIX_PQ = 1u << 4,
    GPS_PREFIX_GB = 1u << 5,
    GPS_PREFIX_GQ = 1u << 6,
    GPS_PREFIX_BD = 1u << 7,
};

// Satellite systems, in the order of modem_info::nmea and of the report.
enum modem_gnss_system : size_t {
    GNSS_GPS,
    GNSS_GLONASS,
    GNSS_GALILEO,
    GNSS_BEIDOU,
    GNSS_QZSS,
    GNSS_SYSTEM_COUNT,
};

// Band masks per radio access technology, in the values of
// drivers/generic/modem_band.h (bit k = the family's k-th band).
struct modem_band_masks {
    uint64_t gsm;
    uint64_t wcdma;
    uint64_t lte; // LTE, or LTE Cat-M1 on LPWA modules
    uint64_t lte_nb;
    uint64_t nsa_5g;
    uint64_t sa_5g;
};

// Band masks from band numbers (GSM bands by MHz), for writing rows. A band the
// family does not list makes a constant expression fail to compile.
namespace band_mask
{
namespace detail
{
// Band numbers in the bit order of the band tables (bit 1 upward); WCDMA has
// 0 where a family entry carries no 3GPP band number.
inline constexpr unsigned gsm_order[] = {850, 900, 1800, 1900};
inline constexpr unsigned wcdma_order[] = {0, 6, 0, 5, 19, 8, 0, 4, 3, 2, 1, 0, 0};
inline constexpr unsigned lte_order[] = {1,  2,  3,  4,  5,  7,  8,  12, 13, 14, 17, 18, 19, 20, 25, 26, 27, 28,
                                         29, 30, 31, 32, 34, 38, 39, 40, 41, 42, 43, 46, 48, 66, 71, 72, 73, 85};
// NSA list; the SA list is its first 28 entries.
inline constexpr unsigned nr_order[] = {1,  2,  3,  5,  7,  8,  12, 13, 14, 18, 20, 25,  26,  28,  29,  30, 38,
                                        40, 41, 48, 66, 70, 71, 75, 76, 77, 78, 79, 257, 258, 260, 261, 262};
inline constexpr size_t sa_count = 28;

inline void band_not_listed() {}

template <size_t N>
constexpr uint64_t mask_of(const unsigned (&order)[N], std::initializer_list<unsigned> bands, size_t count = N)
{
    uint64_t mask = 0;
    for (unsigned band : bands) {
        size_t i = 0;
        while (i < count && (order[i] != band || band == 0))
            i++;
        if (i == count)
            band_not_listed();
        else
            mask |= uint64_t{1} << (i + 1);
    }
    return mask;
}
} // namespace detail

constexpr uint64_t gsm(std::initializer_list<unsigned> mhz)
{
    return detail::mask_of(detail::gsm_order, mhz);
}
constexpr uint64_t wcdma(std::initializer_list<unsigned> bands)
{
    return detail::mask_of(detail::wcdma_order, bands);
}
// Also the NB-IoT family, which lists the same bands.
constexpr uint64_t lte(std::initializer_list<unsigned> bands)
{
    return detail::mask_of(detail::lte_order, bands);
}
constexpr uint64_t nsa_5g(std::initializer_list<unsigned> bands)
{
    return detail::mask_of(detail::nr_order, bands);
}
constexpr uint64_t sa_5g(std::initializer_list<unsigned> bands)
{
    return detail::mask_of(detail::nr_order, bands, detail::sa_count);
}
} // namespace band_mask

// NMEA output of one satellite system; both sets empty: not received.
struct modem_nmea {
    uint64_t sentences; // modem_gps_sentence bits
    uint64_t prefixes;  // modem_gps_prefix bits
};

// One row of the table. Texts are never null; "" when the row has none.
//
// Right after `type` come the default modem function, the command time-out
// in seconds and the port settle delay in ms, then the band masks: EC25-EC
// (type 3) reads 0, 10, 500, GSM 12 (900, 1800), WCDMA 2112 (900, 2100) and
// LTE 278730 (B1, B3, B7, B8, B20, B28).
struct modem_info {
    const char *vendor;
    const char *model;
    const char *variant;
    const char *fw_suffix; // third part of the firmware key
    const char *sn_suffix; // second part of the serial key
    const char *usb_ids;   // "VID:PID" in hexadecimal, compared ignoring case
    uint32_t type;         // one number per model family

    uint32_t default_func; // modem function at start-up (modem_func_str)
    uint32_t cmd_timeout;  // seconds an ordinary command may take
    uint32_t settle_ms;    // quiet time the port needs after it is flushed
    modem_band_masks bands;
    uint64_t service_modes;             // bit n: network mode n (net_mode_id) can be selected
    modem_nmea nmea[GNSS_SYSTEM_COUNT]; // per modem_gnss_system
    uint32_t features;                  // modem_feature bits
    uint32_t default_ims;               // IMS state out of the box (ims_state_str)
    uint32_t pdp_ctx_max;               // highest PDP context id
    bool reboot_needed;                 // IMS/VoLTE, 5G mode and default-band changes apply after a restart
};

inline constexpr size_t MODEM_INFO_ROWS = 80;

// Row 0 is the fallback "Unknown" row; several rows share USB ids on purpose.
extern const modem_info g_midata[MODEM_INFO_ROWS];

// First identification: the first row from 1 on whose USB ids equal usb_ids
// (ignoring case), else row 0.
void modem_info_identify(const modem_info *&info, std::string_view usb_ids);

// Second identification by firmware text. Every row from 1 on forms the key
// model + variant + firmware suffix ("model-variant_suffix" when type is 18),
// cut to 15 characters; the row whose key starts the firmware text (ignoring
// case) wins, the longest key first and the earlier row among equals. info is
// left alone when nothing matches.
void modem_info_identify_ex(const modem_info *&info, std::string_view firmware, uint32_t type);

// Third identification by serial number, among the rows of model type `type`:
// key variant + serial suffix (cut to 15), matched against the serial number
// with its first 3 characters skipped for types 17 and 20. Longest key wins,
// the earlier row among equals; info is left alone when nothing matches or
// type is 0.
void modem_info_identify_serial(const modem_info *&info, std::string_view serial, uint32_t type);

// The three identifications over any table laid out like g_midata (row 0 the
// fallback, rows from 1 searched).
void modem_info_identify(std::span<const modem_info> table, const modem_info *&info, std::string_view usb_ids);
void modem_info_identify_ex(std::span<const modem_info> table, const modem_info *&info, std::string_view firmware,
                            uint32_t type);
void modem_info_identify_serial(std::span<const modem_info> table, const modem_info *&info, std::string_view serial,
                                uint32_t type);

// True when the first 4 characters of text equal (ignoring case) those of the
// model of any row from 1 on.
bool modem_info_validate_model(std::string_view text);

// "vendor model-variant", "vendor model" or just the vendor, cut to 31
// characters. The result lives in a static 32-byte buffer that the next call
// overwrites; a null info names row 0.
const char *modem_info_name(const modem_info *info);
// "model-variant" or the model, in a second static buffer of the same kind.
const char *modem_info_model_name(const modem_info *info);

// Names of single capability bits: "feature_unknown" / "unknown" for a value
// that is not exactly one named bit.
const char *modem_feature_str(uint32_t bit);
const char *modem_gps_str(uint64_t bit);
const char *modem_gps_prefix_str(uint64_t bit);

// Table `name` holding the array "sentences" (names of the set bits among the
// low 12 sentence bits, bit 0 first) and the array "prefix" (low 8 prefix bits).
void fill_gps_array(ujson &json, const char *name, uint64_t sentences, uint64_t prefixes);

// Writes the row's capabilities into a reply:
//   "default_modem_func_id"/"default_modem_func", "command_timeout",
//   "settle_time", "pdp_ctx_max", "features" (array of names),
//   "default_ims_id"/"default_ims", "service_mode_list" (array of mode texts),
//   "band_list" (table: one array of band names per family the modem has,
//   "gsm", "wcdma", "lte", "lte_nb", "nsa_5g", "5g"), "gps_satellites" (table
//   with "gps", "glonass", "galileo", "beidou", "qzss", each a table of its
//   NMEA sentences and prefixes as fill_gps_array writes it, only for the
//   systems the modem receives) and "reboot_needed".
void modem_info_fill_blob(ujson &json, const modem_info &info);
