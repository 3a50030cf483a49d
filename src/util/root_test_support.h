// A throw-away root directory for tests: created under /tmp, exported as
// WWANCTL_ROOT for the test's lifetime (the previous value comes back after),
// removed with everything in it. Paths are given as the daemon names them
// ("/sys/...", "/etc/..."), relative to the root.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

class temp_root
{
  public:
    temp_root()
    {
        char tmpl[] = "/tmp/wwan-root-XXXXXX";
        if (!mkdtemp(tmpl))
            ADD_FAILURE() << "mkdtemp failed";
        path_ = tmpl;
        if (const char *old = std::getenv("WWANCTL_ROOT"))
            saved_ = old, had_ = true;
        setenv("WWANCTL_ROOT", path_.c_str(), 1);
    }
    ~temp_root()
    {
        if (had_)
            setenv("WWANCTL_ROOT", saved_.c_str(), 1);
        else
            unsetenv("WWANCTL_ROOT");
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    temp_root(const temp_root &) = delete;
    temp_root &operator=(const temp_root &) = delete;

    const std::string &path() const { return path_; }
    std::string operator/(const std::string &rel) const { return path_ + rel; }

    // Writes text to rel, making its directories.
    void write(const std::string &rel, const std::string &text) const
    {
        std::filesystem::create_directories(std::filesystem::path(path_ + rel).parent_path());
        std::ofstream(path_ + rel, std::ios::binary) << text;
    }
    // The file's content, "" when absent.
    std::string read(const std::string &rel) const
    {
        std::ifstream in(path_ + rel, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    bool exists(const std::string &rel) const { return std::filesystem::exists(path_ + rel); }
    void remove(const std::string &rel) const
    {
        std::error_code ec;
        std::filesystem::remove_all(path_ + rel, ec);
    }

  private:
    std::string path_;
    std::string saved_;
    bool had_ = false;
};
