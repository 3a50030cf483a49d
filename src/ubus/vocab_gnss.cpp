// GNSS vocabularies: NMEA sentences and outputs, positioning modes.
#include "ubus/vocab.h"
#include "ubus/vocab_table.h"

// clang-format off
namespace {

constexpr vocab_entry nmea_type[] = {
    {nullptr, nullptr},
    {"GGA", nullptr},
    {"RMC", nullptr},
    {"GSV", nullptr},
    {"GSA", nullptr},
    {"VTG", nullptr},
    {"GNS", nullptr},
};
constexpr vocab_def nmea_type_v = make_vocab(nmea_type, "Unknown");

constexpr vocab_entry nmea_sata[] = {
    {nullptr, nullptr},
    {"GPS", "gps"},
    {"GLONASS", "glonass"},
    {"Galileo", "galileo"},
    {"BeiDou", "beidou"},
};
constexpr vocab_def nmea_sata_v = make_vocab(nmea_sata, "Unknown");

constexpr vocab_entry gnss_mode[] = {
    {nullptr, nullptr},
    {"Standalone", nullptr},
    {"MS-based", "ms_based"},
    {"MS-assisted", "ms_assisted"},
    {"Speed optimal", "speed_optimal"},
};
constexpr vocab_def gnss_mode_v = make_vocab(gnss_mode, "Unknown");

constexpr vocab_entry gnss_accuracy[] = {
    {nullptr, nullptr},
    {"Low", nullptr},
    {"Medium", nullptr},
    {"High", nullptr},
};
constexpr vocab_def gnss_accuracy_v = make_vocab(gnss_accuracy, "Unknown");

constexpr vocab_entry nmea_output_port[] = {
    {nullptr, nullptr},
    {"none", nullptr},
    {"usbnmea", nullptr},
    {"uartdebug", nullptr},
};
constexpr vocab_def nmea_output_port_v = make_vocab(nmea_output_port, "Unknown");

// Constellations used with GPS; vendor value = number - 1.
constexpr vocab_entry gnss_operation_mode[] = {
    {nullptr, nullptr},
    {"GPS", "gps"},
    {"GPS+GLONASS+BeiDou+Galileo", "gps_glonass_beidou_galileo"},
    {"GPS+GLONASS+BeiDou", "gps_glonass_beidou"},
    {"GPS+GLONASS+Galileo", "gps_glonass_galileo"},
    {"GPS+GLONASS", "gps_glonass"},
    {"GPS+BeiDou+Galileo", "gps_beidou_galileo"},
    {"GPS+Galileo", "gps_galileo"},
};
constexpr vocab_def gnss_operation_mode_v = make_vocab(gnss_operation_mode, "Unknown");

constexpr vocab_entry dpo_mode[] = {
    {nullptr, nullptr},
    {"Disabled", "disable"},
    {"Enabled", "enable"},
    {"Dynamic", "dynamic"},
};
constexpr vocab_def dpo_mode_v = make_vocab(dpo_mode, "Unknown");

} // namespace
// clang-format on

uint32_t nmea_type_enum(std::string_view t)
{
    return vocab_enum(nmea_type_v, t);
}
const char *nmea_type_str(uint32_t t)
{
    return vocab_str(nmea_type_v, t);
}

uint32_t nmea_sata_arg_enum(std::string_view a)
{
    return vocab_arg_enum(nmea_sata_v, a);
}
const char *nmea_sata_arg_str(uint32_t s)
{
    return vocab_arg_str(nmea_sata_v, s);
}

uint32_t gnss_mode_enum(std::string_view t)
{
    return vocab_enum(gnss_mode_v, t);
}
const char *gnss_mode_str(uint32_t m)
{
    return vocab_str(gnss_mode_v, m);
}

uint32_t gnss_accuracy_enum(std::string_view t)
{
    return vocab_enum(gnss_accuracy_v, t);
}
const char *gnss_accuracy_str(uint32_t a)
{
    return vocab_str(gnss_accuracy_v, a);
}

uint32_t nmea_output_port_enum(std::string_view t)
{
    return vocab_enum(nmea_output_port_v, t);
}
const char *nmea_output_port_str(uint32_t p)
{
    return vocab_str(nmea_output_port_v, p);
}

uint32_t gnss_operation_mode_enum(std::string_view t)
{
    return vocab_enum(gnss_operation_mode_v, t);
}
const char *gnss_operation_mode_str(uint32_t m)
{
    return vocab_str(gnss_operation_mode_v, m);
}

uint32_t dpo_mode_enum(std::string_view t)
{
    return vocab_enum(dpo_mode_v, t);
}
const char *dpo_mode_str(uint32_t m)
{
    return vocab_str(dpo_mode_v, m);
}
