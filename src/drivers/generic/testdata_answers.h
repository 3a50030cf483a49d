// Driver test data from src/drivers/<driver>/testdata (formats in
// src/drivers/generic/testdata/README): answer tables, and case files of
// commands built from arguments, answers and reports with what the driver
// makes of them.
#pragma once

#include "wwan/ubox.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "drivers/generic/driver_test_support.h"
#include "util/ujson.h"

// The path of a test data file of a driver ("generic", "quectel") in the
// source tree.
inline std::string testdata_path(const char *driver, const char *file)
{
    return std::string(WWANCTL_SOURCE_DIR) + "/src/drivers/" + driver + "/testdata/" + file;
}

// text with its escapes \r, \n and \<c> (for \" and \\) replaced.
inline std::string unescape_capture(std::string_view text)
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

// An answer table: the answers by name. Fails the test when the file cannot
// be read.
inline std::map<std::string, std::string> load_answers(const char *driver, const char *file)
{
    std::map<std::string, std::string> out;
    std::ifstream in(testdata_path(driver, file));
    EXPECT_TRUE(in.is_open()) << testdata_path(driver, file);
    for (std::string line; std::getline(in, line);) {
        size_t sp = line.find(' ');
        if (line.empty() || line[0] == '#' || sp == std::string::npos)
            continue;
        out[line.substr(0, sp)] += unescape_capture(std::string_view(line).substr(sp + 1));
    }
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

    // Every case of the driver's file, run with the function its header names.
    template <size_t N> void run_cases(const char *driver, const char *file, const named_fn (&fns)[N])
    {
        std::ifstream in(testdata_path(driver, file));
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
                input += unescape_capture(std::string_view(line).substr(2));
            } else if (fn && line.starts_with("= ")) {
                EXPECT_EQ(outcome_of(*fn, name[0] == '>', input), unescape_capture(std::string_view(line).substr(2)))
                    << file << ": " << header;
                count++;
            }
        }
        EXPECT_GT(count, 0) << file;
    }
    // A case file of the generic driver.
    template <size_t N> void run_cases(const char *file, const named_fn (&fns)[N]) { run_cases("generic", file, fns); }

  private:
    // "<status> <command>" of a build, "<status> <reply>" of a parse,
    // "<status>" and " event <id> [forced] <value>" per event of a report.
    std::string outcome_of(const named_fn &fn, bool build_case, const std::string &input)
    {
        std::string out;
        mdm.events.clear();
        if (build_case)
            out = built(fn.act, input);
        else if (fn.act) {
            out = std::to_string(parse(fn.act, input));
            out += " " + as_json(*reply);
        } else
            out = std::to_string(urc(fn.urc, input));
        for (const auto &e : mdm.events)
            out += " event " + std::to_string(e.id) + (e.forced ? " forced " : " ") +
                   (e.data ? as_json(*e.data) : std::to_string(e.number));
        return out;
    }
};

// An entry of the table run_cases() reads: an action or a report handler by its name.
// clang-format off
#define ACTION(fn) driver_case_test::named_fn{#fn, fn, nullptr}
#define REPORT(fn) driver_case_test::named_fn{#fn, nullptr, fn}
// clang-format on
