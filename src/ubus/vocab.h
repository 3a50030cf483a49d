// Value vocabularies: every enumerated value that crosses the bus is a small
// unsigned number inside the daemon. Per vocabulary (its stem):
//   stem_str       number -> display text for replies and the cache
//   stem_arg_str   number -> keyword accepted as a bus argument
//   stem_arg_enum  bus keyword -> number (exact, case-sensitive), 0 if unknown
//   stem_enum      modem text or keyword -> number (ignoring case), 0 if unknown
// Number 0 means unknown unless a vocabulary says otherwise. Where a number
// stands for a 3GPP / vendor AT parameter value, the AT value is number - 1
// unless the vocabulary notes a different mapping. All texts are static.
#pragma once

#include <cstdint>
#include <string_view>

#include "ubus/modem_api.h" // act_status_str

// --- Network -----------------------------------------------------------------

enum net_mode_id : uint32_t {
    NET_MODE_UNKNOWN = 0,
    NET_MODE_AUTO = 1,
    NET_MODE_NO_SERVICE = 2,
    NET_MODE_2G = 3,
    NET_MODE_GSM = 4,
    NET_MODE_GPRS = 5,
    NET_MODE_EDGE = 6,
    NET_MODE_3G = 7,
    NET_MODE_WCDMA = 8,
    NET_MODE_TDSCDMA = 9,
    NET_MODE_CDMA = 10,
    NET_MODE_EVDO = 11,
    NET_MODE_CDMA_EVDO = 12,
    NET_MODE_HSDPA = 13,
    NET_MODE_HSUPA = 14,
    NET_MODE_HSPA_PLUS = 15,
    NET_MODE_EHRPD = 16,
    NET_MODE_HDR = 17,
    NET_MODE_UMTS = 18,
    NET_MODE_HSDPA_HSUPA = 19,
    NET_MODE_4G = 20,
    NET_MODE_LTE = 21,
    NET_MODE_5G = 22,
    NET_MODE_NR5G = 23,
    NET_MODE_5G_NSA = 24,
    NET_MODE_5G_SA = 25,
    NET_MODE_CAT_M1 = 26,
    NET_MODE_CAT_NB = 27,
    NET_MODE_EMTC = 28,
    NET_MODE_NBIOT = 29,
    NET_MODE_2G_3G = 30,
    NET_MODE_GSM_WCDMA = 31,
    NET_MODE_2G_4G = 32,
    NET_MODE_GSM_LTE = 33,
    NET_MODE_3G_4G = 34,
    NET_MODE_WCDMA_LTE = 35,
    NET_MODE_3G_5G = 36,
    NET_MODE_WCDMA_NR5G = 37,
    NET_MODE_4G_5G = 38,
    NET_MODE_LTE_NR5G = 39,
};

// Network mode; "auto" and "default" both parse to 1, which prints "default".
const char *net_mode_str(uint32_t mode);
const char *net_mode_arg_str(uint32_t mode);
uint32_t net_mode_arg_enum(std::string_view arg);

// Radio access priority order: 1 auto, 2..7 the orders of LTE, NR5G, WCDMA.
const char *rat_priority_str(uint32_t prio);
const char *rat_priority_arg_str(uint32_t prio);
uint32_t rat_priority_arg_enum(std::string_view arg);

// Registration report mode (+CREG/+CGREG/+CEREG/+C5GREG <n>): 1 disabled,
// 2 enabled, 3 enabled with location; "default" parses to 1 (<n> = 0).
const char *net_reg_mode_str(uint32_t mode);
const char *net_reg_mode_arg_str(uint32_t mode);
uint32_t net_reg_mode_arg_enum(std::string_view arg);

// Registration status: the 3GPP <stat> number itself (0 is "Not registered",
// 4 unknown).
const char *net_reg_stat_str(uint32_t stat);

// Access technology id (0 unknown, 1..9 for <AcT> 0..8, 10..13 for <AcT> 10..13).
const char *net_reg_act_str(uint32_t act);

// Signal quality report configuration: 1 disabled, 2 enabled.
const char *signal_query_cfg_str(uint32_t mode);
const char *signal_query_cfg_arg_str(uint32_t mode);
uint32_t signal_query_cfg_arg_enum(std::string_view arg);

// Packet domain attach at start-up: 1 manual, 2 automatic.
const char *gprs_attach_str(uint32_t mode);
const char *gprs_attach_arg_str(uint32_t mode);
uint32_t gprs_attach_arg_enum(std::string_view arg);

// Automatic carrier configuration (MBN) selection: 1 disabled, 2 enabled.
const char *mbn_auto_sel_str(uint32_t mode);
const char *mbn_auto_sel_arg_str(uint32_t mode);
uint32_t mbn_auto_sel_arg_enum(std::string_view arg);

// Roaming service: 1 disabled, 2 enabled, 3 automatic (vendor values 1, 2, 255).
const char *roaming_svc_str(uint32_t mode);
const char *roaming_svc_arg_str(uint32_t mode);
uint32_t roaming_svc_arg_enum(std::string_view arg);

// Operator selection mode (+COPS <mode> 0..4): 1 automatic, 2 manual,
// 3 deregister, 4 set format only, 5 manual then automatic.
const char *op_slc_mode_str(uint32_t mode);
const char *op_slc_mode_arg_str(uint32_t mode);
uint32_t op_slc_mode_arg_enum(std::string_view arg);

// Operator name format (+COPS <format> 0..2): 1 long, 2 short, 3 numeric.
const char *op_slc_fmt_str(uint32_t fmt);
const char *op_slc_fmt_arg_str(uint32_t fmt);
uint32_t op_slc_fmt_arg_enum(std::string_view arg);

// Operator availability in a scan (+COPS=? <stat> 0..3).
const char *op_slc_stat_str(uint32_t stat);

// Packet domain attach state (+CGATT 0/1): 1 detached, 2 attached.
uint32_t ps_att_state_enum(std::string_view text);
const char *ps_att_state_str(uint32_t state);

// IoT network category: 1 CAT-M1, 2 NB-IoT, 3 both (vendor values 0..2).
uint32_t net_cat_enum(std::string_view text);
const char *net_cat_str(uint32_t cat);

// Serving cell UE state (vendor "SEARCH", "LIMSRV", "NOCONN", "CONNECT").
const char *ue_state_str(uint32_t state);

// Carrier aggregation: primary cell state (registration <stat> 0..5) and
// secondary cell state (0 deconfigured, 1 configured, 2 activated).
const char *pcell_state_str(uint32_t state);
const char *scell_state_str(uint32_t state);

// Channel bandwidth by the modem's index: LTE 0..5 (1.4..20 MHz), NR 0..16.
const char *bandwidth_str(uint32_t bw);
const char *bandwidth_5G_str(uint32_t bw);

// Data connection state of the network interface: 1 disconnected, 2 connected.
const char *net_data_state_str(uint32_t state);

// NR5G disabling: 1 none, 2 SA disabled, 3 NSA disabled.
uint32_t disable_nr5g_mode_enum(std::string_view text);
const char *disable_nr5g_mode_str(uint32_t mode);

// Network reject causes: the 3GPP cause values themselves (TS 24.301 EMM and
// ESM, TS 24.501 5GMM).
const char *emm_cause_str(uint32_t cause);
const char *esm_cause_str(uint32_t cause);
const char *mm5g_cause_str(uint32_t cause);

// --- SIM, PIN and facilities -------------------------------------------------

enum pin_state_id : uint32_t {
    PIN_STATE_UNKNOWN = 0,
    PIN_STATE_OK = 1,
    PIN_STATE_NOT_READY = 2,
    PIN_STATE_PIN = 4,
    PIN_STATE_PUK = 5,
    PIN_STATE_PH_NET_PIN = 6,
    PIN_STATE_PH_NET_PUK = 7,
    PIN_STATE_PH_NETSUB_PIN = 8,
    PIN_STATE_PH_NETSUB_PUK = 9,
    PIN_STATE_NOT_INSERTED = 10,
    PIN_STATE_FAILURE = 13,
    PIN_STATE_BUSY = 14,
    PIN_STATE_PUK_BLOCKED = 15,
};

const char *pin_state_str(uint32_t state);

enum sim_state_id : uint32_t {
    SIM_STATE_UNKNOWN = 0,
    SIM_STATE_UNUSABLE = 1,
    SIM_STATE_PRESENT = 2,
};

// SIM state of a PIN state: 1 no usable SIM, 2 SIM present, 0 otherwise.
uint32_t sim_state_enum(uint32_t pin_state);

// SIM insertion status (vendor 0 removed, 1 inserted, 2 unknown).
const char *sim_stat_str(uint32_t stat);

// Facility lock state (+CLCK <status>/<mode> 0/1): 1 unlocked, 2 locked.
uint32_t fac_lock_state_id(std::string_view key);
const char *fac_lock_state_str(uint32_t state);

// Facilities of +CLCK/+CPWD; the text is the facility code itself ("SC").
uint32_t facility_id(std::string_view key);
const char *facility_str(uint32_t fac);

// SIM hot-swap detection level: 1 low, 2 high.
uint32_t polarity_id_enum(std::string_view text);
const char *polarity_id_str(uint32_t pol);

// --- SMS -------------------------------------------------------------------

// Message format (+CMGF): 1 PDU, 2 text.
const char *sms_mode_str(uint32_t mode);
const char *sms_mode_arg_str(uint32_t mode);
uint32_t sms_mode_arg_enum(std::string_view arg);

// Message storage (+CPMS); the keyword is the storage code ("SM").
const char *msg_storage_str(uint32_t mem);
const char *msg_storage_arg_str(uint32_t mem);
uint32_t msg_storage_arg_enum(std::string_view arg);

// Message status: the 3GPP TS 27.005 PDU mode <stat> number (0 unread ..
// 4 all). Unrecognised text parses to 0, as in every vocabulary: callers that
// must tell "unread" from unknown check the text first.
const char *sms_state_str(uint32_t stat);
uint32_t sms_state_enum(std::string_view text);

// SMS format of LTE URCs: 1 CDMA, 2 GSM, 3 LTE (also from "0".."2").
uint32_t urc_lte_sms_format_enum(std::string_view text);
const char *urc_lte_sms_format_str(uint32_t fmt);

// --- Calls and USSD ----------------------------------------------------------

// Calling line presentation (+CLIP <n>): 1 disabled, 2 enabled.
const char *clip_mode_str(uint32_t mode);
const char *clip_mode_arg_str(uint32_t mode);
uint32_t clip_mode_arg_enum(std::string_view arg);

// CLIP provisioning (+CLIP <m> 0..2).
const char *clip_stat_str(uint32_t stat);

// Extended ring format (+CRC <mode>): 1 disabled, 2 enabled.
const char *cell_rc_str(uint32_t mode);
const char *cell_rc_arg_str(uint32_t mode);
uint32_t cell_rc_arg_enum(std::string_view arg);

// Current calls (+CLCC): direction <dir> 0/1, state <stat> 0..5, mode
// <mode> 0..9, and the type of number of <type> ((type >> 4) & 7, 0..6).
uint32_t call_direction_id_enum(std::string_view text);
const char *call_direction_id_str(uint32_t dir);
uint32_t call_state_id_enum(std::string_view text);
const char *call_state_id_str(uint32_t state);
uint32_t call_mode_id_enum(std::string_view text);
const char *call_mode_id_str(uint32_t mode);
uint32_t call_type_id_enum(std::string_view text);
const char *call_type_id_str(uint32_t type);

// Incoming call type of +CRING.
uint32_t ring_type_id_enum(std::string_view text);
const char *ring_type_id_str(uint32_t type);

// CLI validity of +CLIP (0..4).
const char *cli_valid_id_str(uint32_t valid);

// USSD result presentation (+CUSD <n> 0..2): 1 disabled, 2 enabled, 3 cancel.
uint32_t ussd_mode_enum(std::string_view text);
const char *ussd_mode_str(uint32_t mode);

// Voice domain preference (0 CS only .. 3 IMS preferred).
const char *urc_voice_domain_str(uint32_t dom);

// IMS: 1 automatic (by carrier configuration), 2 enabled, 3 disabled.
uint32_t ims_state_enum(std::string_view text);
const char *ims_state_str(uint32_t state);

// VoLTE: 1 disabled, 2 enabled.
uint32_t volte_state_enum(std::string_view text);
const char *volte_state_str(uint32_t state);

// --- Packet data -------------------------------------------------------------

// PDP type; the text is the AT text ("IP", "IPV4V6").
uint32_t pdp_type_id_enum(std::string_view text);
const char *pdp_type_id_str(uint32_t type);

// +CGDCONT <d_comp> 0..3, <h_comp> 0..4, <IPv4AddrAlloc> 0..1, <request_type> 0..4.
uint32_t pdp_data_comp_id_enum(std::string_view text);
const char *pdp_data_comp_id_str(uint32_t comp);
uint32_t pdp_hdr_comp_id_enum(std::string_view text);
const char *pdp_hdr_comp_id_str(uint32_t comp);
uint32_t pdp_ipv4_addr_alloc_id_enum(std::string_view text);
const char *pdp_ipv4_addr_alloc_id_str(uint32_t alloc);
uint32_t pdp_req_id_enum(std::string_view text);
const char *pdp_req_id_str(uint32_t req);

// Authentication of an APN (0 none, 1 PAP, 2 CHAP, 3 PAP or CHAP).
uint32_t apn_auth_enum(std::string_view text);
const char *apn_auth_str(uint32_t auth);

// PDP context activation (+CGACT <state> 0/1): 1 deactivated, 2 activated.
uint32_t pdp_ctx_state_enum(std::string_view text);
const char *pdp_ctx_state_str(uint32_t state);

// Data call of the network interface: 1 disconnect, 2 connect, 3 connect
// and keep connected (vendor values 0, 1, 3).
uint32_t pdp_call_mode_enum(std::string_view text);
const char *pdp_call_mode_str(uint32_t mode);

// Data call state (vendor 0 disconnected, 1 ready, 2 connected).
const char *pdp_call_state_str(uint32_t state);

// IPv6 neighbour discovery proxy: 1 disabled, 2 enabled.
uint32_t ipv6_ndp_state_enum(std::string_view text);
const char *ipv6_ndp_state_str(uint32_t state);

// --- System and configuration ------------------------------------------------

// Phone functionality (+CFUN <fun>): 1 minimum, 2 full, 3 transmit off,
// 4 receive off, 5 radio off, 8 offline.
const char *phone_func_str(uint32_t fun);
const char *phone_func_arg_str(uint32_t fun);
uint32_t phone_func_arg_enum(std::string_view arg);

// Error reports (+CMEE <n>): 1 disabled, 2 numeric, 3 verbose.
const char *err_msg_fmt_str(uint32_t fmt);
const char *err_msg_fmt_arg_str(uint32_t fmt);
uint32_t err_msg_fmt_arg_enum(std::string_view arg);

// Machine-to-machine mode and forced routing: 1 disabled, 2 enabled.
uint32_t m2m_arg_enum(std::string_view arg);
const char *m2m_state_arg_str(uint32_t state);
uint32_t frouting_arg_enum(std::string_view arg);
const char *frouting_state_arg_str(uint32_t state);

// Capability sets of +GCAP.
uint32_t cap_set_enum(std::string_view text);
const char *cap_set_str(uint32_t cap);

// Modem activity status (+CPAS <pas> 0..5).
const char *mod_act_stat_str(uint32_t pas);

// USB network function (vendor 0 QMI, 1 ECM, 2 MBIM, 3 RNDIS).
uint32_t usbnet_mode_id_enum(std::string_view text);
const char *usbnet_mode_id_str(uint32_t mode);

// NAT of the modem's own router: 1 disabled, 2 enabled.
uint32_t nat_mode_id_enum(std::string_view text);
const char *nat_mode_id_str(uint32_t mode);

// Secure boot: 1 disabled, 2 enabled.
uint32_t sec_boot_mode_id_enum(std::string_view text);
const char *sec_boot_mode_id_str(uint32_t mode);

// UE usage setting (0 voice centric, 1 data centric).
uint32_t ue_usage_id_enum(std::string_view text);
const char *ue_usage_id_str(uint32_t usage);

// Firmware update state of the +QIND "FOTA" URC; the text is matched as a
// prefix, ignoring case, against ids 1..10 in order.
uint32_t fota_state_enum(std::string_view text);
const char *fota_state_str(uint32_t state);

// Network time query (vendor 0 latest NITZ, 1 GMT, 2 local time).
uint32_t time_mode_enum(std::string_view text);
const char *time_mode_str(uint32_t mode);

// Modem file storages.
uint32_t storage_type_enum(std::string_view text);
const char *storage_type_str(uint32_t type);

// URC indications that can be switched; the keyword is the AT text ("csq").
uint32_t urc_ind_arg_enum(std::string_view arg);
const char *urc_ind_arg_str(uint32_t ind);

// Result of restoring the modem's configuration file system: 1 ok, 2 failed.
const char *cefs_restore_state_str(uint32_t state);

// A/B firmware update state.
const char *qabfota_state_str(uint32_t state);

// Modem function of the model (0 full .. 4 auto VoLTE); "Unknown mode" else.
const char *modem_func_str(uint32_t func);

// What the modem is busy with (1 idle .. 6 firmware update).
const char *modem_state_str(uint32_t state);

// --- GNSS --------------------------------------------------------------------

// NMEA sentence types, in the order of the vendor's bit mask (1 GGA = bit 0).
uint32_t nmea_type_enum(std::string_view text);
const char *nmea_type_str(uint32_t type);

// Satellite systems whose NMEA output is configured.
uint32_t nmea_sata_arg_enum(std::string_view arg);
const char *nmea_sata_arg_str(uint32_t sys);

// GNSS positioning mode: the vendor value itself (1 standalone .. 4 speed optimal).
uint32_t gnss_mode_enum(std::string_view text);
const char *gnss_mode_str(uint32_t mode);

// Requested fix accuracy: 1 low, 2 medium, 3 high.
uint32_t gnss_accuracy_enum(std::string_view text);
const char *gnss_accuracy_str(uint32_t acc);

// NMEA output port; the text is the vendor's ("usbnmea").
uint32_t nmea_output_port_enum(std::string_view text);
const char *nmea_output_port_str(uint32_t port);

// Satellite systems used besides GPS (vendor values 0..6).
uint32_t gnss_operation_mode_enum(std::string_view text);
const char *gnss_operation_mode_str(uint32_t mode);

// Dynamic power optimisation: 1 disabled, 2 enabled, 3 dynamic.
uint32_t dpo_mode_enum(std::string_view text);
const char *dpo_mode_str(uint32_t mode);

// --- Events and asynchronous calls -------------------------------------------

// Event names by event id; ids without a name give the empty text.
const char *evt_name_str(uint32_t id);

// Asynchronous call names: 0 "Sending SMS", anything else the empty text.
const char *async_name_str(uint32_t id);
