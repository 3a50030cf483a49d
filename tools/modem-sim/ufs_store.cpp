#include "ufs_store.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace modem_sim {

namespace {

constexpr size_t max_name = 80;
constexpr int64_t default_upload_timeout_s = 5;
constexpr std::string_view ufs_dir = "/data/ufs/";

bool starts_with_nocase(std::string_view s, std::string_view p)
{
	if (s.size() < p.size())
		return false;
	for (size_t i = 0; i < p.size(); i++)
		if (std::toupper(static_cast<unsigned char>(s[i])) != std::toupper(static_cast<unsigned char>(p[i])))
			return false;
	return true;
}

// Parameters after '=': quoted texts (quotes removed) or bare words, split at
// commas outside quotes. False for an unterminated quote.
bool split_params(std::string_view s, std::vector<std::string> *out, std::vector<bool> *quoted)
{
	out->clear();
	quoted->clear();
	if (s.empty())
		return true;
	std::string cur;
	bool q = false, was_quoted = false;
	for (char c : s) {
		if (c == '"') {
			q = !q;
			was_quoted = true;
		} else if (c == ',' && !q) {
			out->push_back(cur);
			quoted->push_back(was_quoted);
			cur.clear();
			was_quoted = false;
		} else {
			cur += c;
		}
	}
	if (q)
		return false;
	out->push_back(cur);
	quoted->push_back(was_quoted);
	return true;
}

bool whole_number(const std::string &s, long *v)
{
	if (s.empty() || s.size() > 10)
		return false;
	for (char c : s)
		if (!std::isdigit(static_cast<unsigned char>(c)))
			return false;
	*v = std::strtol(s.c_str(), nullptr, 10);
	return true;
}

long capacity(const Vars &vars, const std::string &storage)
{
	if (storage != "UFS" && storage != "RAM")
		return 0;
	auto it = vars.find(storage == "RAM" ? "ufs_ram_total" : "ufs_total");
	return it == vars.end() ? 0 : std::strtol(it->second.c_str(), nullptr, 10);
}

// "RAM:name", "UFS:name", "SD:name" or a plain name (UFS).
void split_storage(std::string_view arg, std::string *storage, std::string *name)
{
	for (std::string_view s : {"UFS", "RAM", "SD"}) {
		if (starts_with_nocase(arg, s) && arg.size() > s.size() && arg[s.size()] == ':') {
			*storage = std::string(s);
			*name = std::string(arg.substr(s.size() + 1));
			return;
		}
	}
	*storage = "UFS";
	*name = std::string(arg);
}

bool valid_name(std::string_view name)
{
	if (name.empty() || name.size() > max_name || name == "." || name == "..")
		return false;
	for (char c : name)
		if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '/' || c == '\\' || c == '"' || c == ':')
			return false;
	return true;
}

// '*' matches any run of characters; everything else itself.
bool glob(std::string_view pat, std::string_view s)
{
	if (pat.empty())
		return s.empty();
	if (pat[0] == '*') {
		for (size_t i = 0; i <= s.size(); i++)
			if (glob(pat.substr(1), s.substr(i)))
				return true;
		return false;
	}
	return !s.empty() && pat[0] == s[0] && glob(pat.substr(1), s.substr(1));
}

UfsAnswer ok()
{
	UfsAnswer a;
	a.final = UfsAnswer::Final::ok;
	return a;
}

UfsAnswer cme(int code)
{
	UfsAnswer a;
	a.final = UfsAnswer::Final::cme;
	a.code = code;
	return a;
}

UfsAnswer error()
{
	UfsAnswer a;
	a.final = UfsAnswer::Final::error;
	return a;
}

std::string hex(uint16_t v)
{
	char buf[8];
	std::snprintf(buf, sizeof(buf), "%x", v);
	return buf;
}

} // namespace

uint16_t UfsStore::checksum(std::string_view data)
{
	uint16_t sum = 0;
	for (size_t i = 0; i < data.size(); i += 2) {
		unsigned hi = static_cast<unsigned char>(data[i]);
		unsigned lo = i + 1 < data.size() ? static_cast<unsigned char>(data[i + 1]) : 0;
		sum = static_cast<uint16_t>(sum ^ ((hi << 8) | lo));
	}
	return sum;
}

UfsAnswer UfsStore::command(std::string_view cmd, const Vars &vars)
{
	struct Entry {
		std::string_view name;
		UfsAnswer (UfsStore::*fn)(std::string_view);
	};
	std::string_view arg;
	auto is = [&](std::string_view name) {
		if (!starts_with_nocase(cmd, name))
			return false;
		std::string_view rest = cmd.substr(name.size());
		if (!rest.empty() && rest[0] != '=')
			return false;
		arg = rest.empty() ? rest : rest.substr(1);
		return true;
	};
	if (is("AT+QFLST"))
		return list_files(arg);
	if (is("AT+QFDEL"))
		return delete_file(arg);
	if (is("AT+QFLDS"))
		return space(arg, vars);
	if (is("AT+QFUPL"))
		return upload(arg, vars);
	if (is("AT+QFOTADL"))
		return fota(arg);
	return {};
}

size_t UfsStore::used(const std::string &storage) const
{
	size_t n = 0;
	auto it = files_.find(storage);
	if (it != files_.end())
		for (const auto &[name, data] : it->second)
			n += data.size();
	return n;
}

UfsAnswer UfsStore::list_files(std::string_view arg)
{
	std::vector<std::string> p;
	std::vector<bool> q;
	if (!split_params(arg, &p, &q) || p.size() > 1)
		return error();
	std::string storage, pattern = "*";
	split_storage(p.empty() ? "*" : p[0], &storage, &pattern);
	UfsAnswer a;
	auto it = files_.find(storage);
	if (it != files_.end())
		for (const auto &[name, data] : it->second)
			if (glob(pattern, name))
				a.lines.push_back("+QFLST: \"" + (storage == "UFS" ? "" : storage + ":") + name + "\"," +
						  std::to_string(data.size()));
	// Asked for one file by name: a missing one is an error.
	if (a.lines.empty() && pattern.find('*') != std::string::npos)
		return ok();
	if (a.lines.empty())
		return cme(ufs_no_such_file);
	a.final = UfsAnswer::Final::ok;
	return a;
}

UfsAnswer UfsStore::delete_file(std::string_view arg)
{
	std::vector<std::string> p;
	std::vector<bool> q;
	if (!split_params(arg, &p, &q) || p.size() != 1)
		return error();
	std::string storage, name;
	split_storage(p[0], &storage, &name);
	auto &files = files_[storage];
	if (name == "*") {
		files.clear();
		return ok();
	}
	if (!files.erase(name))
		return cme(ufs_no_such_file);
	return ok();
}

UfsAnswer UfsStore::space(std::string_view arg, const Vars &vars)
{
	std::vector<std::string> p;
	std::vector<bool> q;
	if (!split_params(arg, &p, &q) || p.size() > 1)
		return error();
	std::string storage = p.empty() ? "UFS" : p[0];
	for (char &c : storage)
		c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
	long total = (storage == "UFS" || storage == "RAM") ? capacity(vars, storage) : 0;
	if (total <= 0)
		return cme(ufs_invalid_input);
	long used_bytes = static_cast<long>(used(storage));
	UfsAnswer a;
	a.lines.push_back("+QFLDS: " + std::to_string(total > used_bytes ? total - used_bytes : 0) + "," +
			  std::to_string(total));
	a.final = UfsAnswer::Final::ok;
	return a;
}

UfsAnswer UfsStore::upload(std::string_view arg, const Vars &vars)
{
	std::vector<std::string> p;
	std::vector<bool> q;
	if (!split_params(arg, &p, &q) || p.empty() || p.size() > 4 || !q[0])
		return error();
	std::string storage, name;
	split_storage(p[0], &storage, &name);
	long total = capacity(vars, storage);
	if (total <= 0)
		return cme(ufs_invalid_input);
	if (!valid_name(name))
		return cme(ufs_bad_name);
	long size = 0, timeout = default_upload_timeout_s, ack = 0;
	// The size is needed: this module does not end an upload any other way.
	if (p.size() < 2 || !whole_number(p[1], &size) || size <= 0)
		return cme(ufs_bad_parameter);
	if (p.size() > 2 && (!whole_number(p[2], &timeout) || timeout <= 0))
		return cme(ufs_bad_parameter);
	// Acknowledged uploads are not simulated.
	if (p.size() > 3 && (!whole_number(p[3], &ack) || ack != 0))
		return cme(ufs_bad_parameter);
	if (files_[storage].count(name))
		return cme(ufs_exists);
	if (size > total - static_cast<long>(used(storage)))
		return cme(ufs_no_space);
	upload_ = Upload();
	upload_.active = true;
	upload_.storage = storage;
	upload_.name = name;
	upload_.size = static_cast<size_t>(size);
	upload_.timeout_ms = timeout * 1000;
	UfsAnswer a;
	a.final = UfsAnswer::Final::connect;
	return a;
}

size_t UfsStore::feed(std::string_view bytes)
{
	if (!upload_.active)
		return 0;
	size_t n = std::min(bytes.size(), upload_.size - upload_.data.size());
	upload_.data.append(bytes.substr(0, n));
	return n;
}

UfsAnswer UfsStore::finish_upload()
{
	UfsAnswer a;
	a.lines.push_back("+QFUPL: " + std::to_string(upload_.data.size()) + "," + hex(checksum(upload_.data)));
	a.final = UfsAnswer::Final::ok;
	files_[upload_.storage][upload_.name] = std::move(upload_.data);
	upload_ = Upload();
	return a;
}

UfsAnswer UfsStore::abort_upload()
{
	upload_ = Upload();
	return cme(ufs_timeout);
}

UfsAnswer UfsStore::fota(std::string_view arg)
{
	std::vector<std::string> p;
	std::vector<bool> q;
	if (!split_params(arg, &p, &q) || p.size() != 1 || !q[0])
		return error();
	std::string_view path = p[0];
	if (!path.starts_with(ufs_dir))
		return cme(ufs_invalid_input);
	if (!file("UFS", path.substr(ufs_dir.size())))
		return cme(ufs_no_such_file);
	UfsAnswer a = ok();
	a.fota = true;
	return a;
}

std::vector<std::string> UfsStore::list() const
{
	std::vector<std::string> out;
	for (const auto &[storage, files] : files_)
		for (const auto &[name, data] : files)
			out.push_back(storage + " " + name + " " + std::to_string(data.size()) + " " + hex(checksum(data)));
	return out;
}

const std::string *UfsStore::file(std::string_view storage, std::string_view name) const
{
	auto s = files_.find(std::string(storage));
	if (s == files_.end())
		return nullptr;
	auto f = s->second.find(std::string(name));
	return f == s->second.end() ? nullptr : &f->second;
}

} // namespace modem_sim
