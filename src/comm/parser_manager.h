// Response parser of one modem's AT port. Received bytes collect in a history;
// each call of work() looks in it for the final result code of the command in
// flight, moves the response (from its first line to the end of the result
// code) into the content buffer, and moves the unsolicited result codes that
// arrived in front of it into the URC buffer. The status word tells the
// caller what was found.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "util/ubuffer.h"

enum parser_status : uint32_t {
    PARSER_STATUS_FAILURE = 1,    // a buffer could not grow: fail the command in flight
    PARSER_STATUS_COMPLETE = 2,   // a final result code ended the response
    PARSER_STATUS_INCOMPLETE = 4, // a command is in flight and its result code is still missing
    PARSER_STATUS_PROMPT = 8,     // the modem waits for the text of a two-part command
    PARSER_STATUS_URC = 16,       // the URC buffer holds new URCs
};

// Final and intermediate result codes; 0 when none was found.
enum ats_id : uint32_t {
    ATS_NONE = 0,
    ATS_OK = 1,
    ATS_BUSY = 2,
    ATS_TIMEOUT = 3,
    ATS_TIME_OUT = 4,
    ATS_CME_ERROR = 5,
    ATS_CMEE_ERROR = 6,
    ATS_CMS_ERROR = 7,
    ATS_NO_ANSWER = 8,
    ATS_NO_DIALTONE = 9,
    ATS_NO_CARRIER = 10,
    ATS_CONNECT = 11,
    ATS_PROMPT = 12,
    ATS_ERROR = 13,
};

// True for the characters that open extended AT syntax: + ^ * # $
bool is_spec_at_char(char c);

// The response token of a command, upper-cased: "AT+CSQ\r" gives "CSQ",
// "AT+COPS=?\r" gives "COPS"; empty when it would be longer than 15.
std::string at_token(std::string_view cmd);

// Buffer figures for the bus statistics. h_rst_preview points into the
// parser and stays valid until the next work() or destruction.
struct parser_stats {
    uint32_t c_grow_cnt, c_len, c_cap;
    uint32_t u_grow_cnt, u_len, u_cap;
    uint32_t h_grow_cnt, h_len, h_cap;
    uint32_t h_rst_cnt;
    std::string_view h_rst_preview;
};

class parser {
  public:
    static constexpr uint32_t hist_limit = 65536; // larger histories are dropped
    static constexpr uint32_t preview_len = 511;  // bytes kept from a dropped history
    static constexpr uint32_t token_size = 16;    // token text and its terminator

    // A parser with its four buffers; null when any allocation fails.
    static std::unique_ptr<parser> create();

    parser(const parser &) = delete;
    parser &operator=(const parser &) = delete;

    // Derives the expected response token from the command text ("AT+CSQ\r"
    // gives "CSQ"). A null command keeps the current token.
    void set_req_token(const char *cmd);
    void set_req_token(std::string_view cmd);
    const char *get_req_token() const { return token_; }

    // Appends received bytes to the history; returns n, or 0 when it could
    // not grow.
    uint32_t hist_add(const void *bytes, uint32_t n);
    // Cuts every result code left in the history by an earlier exchange.
    // 1 when there was none, 0 when something was cut.
    int pre_sanitize();
    // Turns zero bytes of the history into '?' so it reads as text. Returns 1.
    int sanitize();
    // Parses the history; returns the new status.
    //  - A history over hist_limit is dropped first; its start is kept as the
    //    preview of the statistics.
    //  - Complete USSD reports (their text may hold line breaks) and
    //    POWERED DOWN become URCs wherever they are. A USSD report still
    //    arriving is held back, and its text is not searched for a result code.
    //  - The response begins at the first line opening with an extended
    //    syntax character, the token and ':'; without such a line, at the
    //    first plain line after the last URC-like line (one opening with an
    //    extended syntax character, or naming RING or +QFUPL). It runs to the
    //    end of the result code and moves to the content buffer.
    //  - Complete lines in front of the response that are URC-like move to
    //    the URC buffer, other lines there are dropped. Without a result code
    //    the lines that may still be the response wait in the history.
    uint32_t work();

    uint32_t status() const { return status_; }
    uint32_t result_id() const { return result_id_; }
    bool done() const { return status_ & PARSER_STATUS_COMPLETE; }
    // Empties the content and clears status and result id; the history stays.
    void flush();

    const char *get_data() const { return text(*content_); }
    uint32_t get_len() const { return content_->len(); }
    const char *get_hdata() const { return text(*hist_); }
    uint32_t get_hlen() const { return hist_->len(); }

    // URCs are kept back to back with their lengths: a USSD report whose text
    // holds line breaks is still one URC. urc_add appends one URC.
    uint32_t urc_add(const void *bytes, uint32_t n);
    bool urc_done() const { return urc_index_ >= urc_lens_.size(); }
    const char *urc_get() const { return text(*urc_) + urc_pos_; }
    uint32_t urc_len() const { return urc_done() ? 0 : urc_lens_[urc_index_]; }
    void urc_next();
    void urc_flush();

    // Finds the result code that ends a response. Verbose codes are tried in
    // id order anywhere in the text, then the numeric (ATV0) codes. Returns
    // the id (0 for none) and, through the optional out pointers, where the
    // code starts, how long it is and whether it was numeric. Without a match
    // the position is the text's length, the length 0 and numeric 1; text
    // with a null data pointer counts as no text at all (numeric 0).
    static uint32_t ats_id_find(std::string_view text, uint32_t *pos = nullptr, uint32_t *len = nullptr,
                                int *numeric = nullptr);

    parser_stats stats() const;

  private:
    static constexpr uint32_t npos = UINT32_MAX;

    struct code_match {
        uint32_t id = ATS_NONE;
        uint32_t pos = 0;
        uint32_t len = 0;
        int numeric = 0;
        bool at_start = false;
    };

    parser() = default;

    static const char *text(const ubuffer &b);
    static code_match find_code(std::string_view t, uint32_t from, uint32_t *pending);

    std::string_view hist_view() const;
    code_match next_code();
    void take_special_urcs();
    void scan_lines(uint32_t end);
    uint32_t scan_front(uint32_t end);
    void classify_line(uint32_t start, uint32_t end, uint32_t token_len);
    bool has_qfupl();
    void cut_hist(uint32_t pos, uint32_t n);
    void reset_lines();
    void reset_scan();
    bool append(ubuffer &b, const void *src, uint32_t n);

    std::unique_ptr<ubuffer> content_;
    std::unique_ptr<ubuffer> urc_;
    std::unique_ptr<ubuffer> hist_;
    std::unique_ptr<ubuffer> preview_;
    uint32_t rst_cnt_ = 0;
    uint32_t urc_pos_ = 0;   // offset of the current URC
    size_t urc_index_ = 0;   // its entry in urc_lens_
    std::vector<uint32_t> urc_lens_;
    char token_[token_size] = {};
    uint32_t status_ = 0;
    uint32_t result_id_ = ATS_NONE;

    // Progress kept between calls so that each chunk costs about its own
    // length instead of the whole history's. Every cut of the history moves
    // or rewinds these marks.
    uint32_t clean_from_ = 0; // history before this holds no zero byte
    uint32_t code_from_ = 0;  // no result code starts before this
    uint32_t spec_from_ = 0;  // no special URC (or a possible start of one) before this
    uint32_t cusd_hold_ = npos; // a USSD report still arriving starts here
    uint32_t qfupl_from_ = 0; // "+QFUPL" does not start before this...
    uint32_t qfupl_at_ = npos; // ...unless found here
    uint32_t line_pos_ = 0;   // start of the first line not yet classified
    uint32_t first_token_ = npos; // first line opening with the token
    uint32_t plain_start_ = npos; // first plain line after the last URC-like line
};
