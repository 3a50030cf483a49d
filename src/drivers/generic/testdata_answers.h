// Driver test cases from src/drivers/generic/testdata (format in its README):
// commands built from arguments, answers and reports with what the driver
// makes of them.
#pragma once

#include <libubox/blobmsg_json.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "drivers/generic/driver_test_support.h"
#include "util/ujson.h"

inline std::string as_json(const ujson &json)
{
    char *s = blobmsg_format_json(json.get_blobmsg(), true);
    std::string out = s ? s : "(null)";
    std::free(s);
    return out;
}

class driver_case_test : public driver_test
{
  protected:
    struct named_fn {
        const char *name;
        act_func act; // an action, or
        urc_func urc; // a report handler
    };

    // Every case of file, run with the function its header names.
    template <size_t N> void run_cases(const char *file, const named_fn (&fns)[N])
    {
        std::ifstream in(std::string(WWANCTL_SOURCE_DIR) + "/src/drivers/generic/testdata/" + file);
        const named_fn *fn = nullptr;
        std::string name, header, input;
        int count = 0;
        for (std::string line; std::getline(in, line);) {
            if (line.starts_with("[") || line.starts_with("> ")) {
                size_t blank = line.find(' ', 2);
                name = line.substr(0, blank);
                header = line;
                fn = nullptr;
                for (const auto &f : fns)
                    fn = name.substr(name[0] == '[' ? 1 : 2) == f.name ? &f : fn;
                ASSERT_TRUE(fn) << file << ": " << line;
                input = line[0] == '>' ? line.substr(blank + 1) : "";
            } else if (line.starts_with("< ")) {
                input += unescape(line.substr(2));
            } else if (fn && line.starts_with("= ")) {
                EXPECT_EQ(outcome_of(*fn, name[0] == '>', input), unescape(line.substr(2))) << file << ": " << header;
                count++;
            }
        }
        EXPECT_GT(count, 0) << file;
    }

  private:
    static std::string unescape(const std::string &text)
    {
        std::string out;
        for (size_t i = 0; i < text.size(); i++) {
            char c = text[i];
            if (c == '\\' && i + 1 < text.size()) {
                c = text[++i];
                c = c == 'r' ? '\r' : c == 'n' ? '\n' : c;
            }
            out += c;
        }
        return out;
    }

    // "<status> <command>" of a build, "<status> <reply>" of a parse,
    // "<status>" and " event <id> [forced] <value>" per event of a report.
    std::string outcome_of(const named_fn &fn, bool build_case, const std::string &input)
    {
        mdm.events.clear();
        std::string out;
        if (build_case) {
            auto json = ujson::create();
            EXPECT_TRUE(blobmsg_add_json_from_string(json->buffer(), input.c_str())) << input;
            out = std::to_string(build(fn.act, json.get()));
            out += command().empty() ? "" : " " + command();
        } else if (fn.act) {
            out = std::to_string(parse(fn.act, input));
            out += " " + as_json(*reply);
        } else {
            out = std::to_string(urc(fn.urc, input));
        }
        for (const auto &e : mdm.events)
            out += " event " + std::to_string(e.id) + (e.forced ? " forced " : " ") +
                   (e.data ? as_json(*e.data) : std::to_string(e.number));
        return out;
    }
};
