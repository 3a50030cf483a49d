#include "broker_acl.h"

#include "broker.h"

#include "wwan/ubox.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace ubusd {

namespace {

// The string members of an array (anything else in it is ignored).
std::vector<std::string> strings_of(struct blob_attr *array)
{
	std::vector<std::string> r;
	if (!array || blobmsg_type(array) != BLOBMSG_TYPE_ARRAY)
		return r;
	struct blob_attr *cur;
	size_t rem;
	blobmsg_for_each_attr(cur, array, rem) {
		if (blobmsg_type(cur) == BLOBMSG_TYPE_STRING && *blobmsg_get_string(cur))
			r.emplace_back(blobmsg_get_string(cur));
	}
	return r;
}

struct blob_attr *member(struct blob_attr *table, const char *name, int type)
{
	struct blob_attr *cur;
	size_t rem;
	blobmsg_for_each_attr(cur, table, rem) {
		if (blobmsg_type(cur) == type && !strcmp(blobmsg_name(cur), name))
			return cur;
	}
	return nullptr;
}

bool any_match(const std::vector<std::string> &patterns, const char *name)
{
	return std::any_of(patterns.begin(), patterns.end(),
			   [&](const std::string &p) { return event_match(p, name); });
}

bool read_file(int fd, std::string *out)
{
	char buf[4096];
	for (;;) {
		ssize_t n = read(fd, buf, sizeof(buf));
		if (n < 0)
			return false;
		if (n == 0)
			return true;
		out->append(buf, n);
		// ACL files are a few lines; anything this large is not one.
		if (out->size() > 1024 * 1024)
			return false;
	}
}

} // namespace

bool acl_table::add_json(const std::string &text, const std::string &source)
{
	struct blob_buf b = {};
	blob_buf_init(&b, 0);
	if (!blobmsg_add_json_from_string(&b, text.c_str())) {
		blob_buf_free(&b);
		return false;
	}
	// The document's members sit directly in the buffer's head.
	struct blob_attr *doc = b.head;
	auto top = [&](const char *name, int type) -> struct blob_attr * {
		struct blob_attr *cur;
		size_t rem;
		blob_for_each_attr(cur, doc, rem) {
			if (blob_is_extended(cur) && blobmsg_type(cur) == type && !strcmp(blobmsg_name(cur), name))
				return cur;
		}
		return nullptr;
	};

	rule r;
	r.source = source;
	struct blob_attr *user = top("user", BLOBMSG_TYPE_STRING), *group = top("group", BLOBMSG_TYPE_STRING);
	// A file naming both is about the user.
	if (user && *blobmsg_get_string(user))
		r.user = blobmsg_get_string(user);
	else if (group && *blobmsg_get_string(group))
		r.group = blobmsg_get_string(group);
	else {
		blob_buf_free(&b);
		return false;
	}
	if (struct blob_attr *access = top("access", BLOBMSG_TYPE_TABLE)) {
		struct blob_attr *cur;
		size_t rem;
		blobmsg_for_each_attr(cur, access, rem) {
			if (blobmsg_type(cur) != BLOBMSG_TYPE_TABLE || !*blobmsg_name(cur))
				continue;
			access_rule a;
			a.pattern = blobmsg_name(cur);
			a.methods = strings_of(member(cur, "methods", BLOBMSG_TYPE_ARRAY));
			if (struct blob_attr *priv = member(cur, "priv", BLOBMSG_TYPE_TABLE)) {
				auto *p = reinterpret_cast<const uint8_t *>(priv);
				a.priv.assign(p, p + blob_pad_len(priv));
			}
			r.access.push_back(std::move(a));
		}
	}
	r.publish = strings_of(top("publish", BLOBMSG_TYPE_ARRAY));
	r.subscribe = strings_of(top("subscribe", BLOBMSG_TYPE_ARRAY));
	r.listen = strings_of(top("listen", BLOBMSG_TYPE_ARRAY));
	r.send = strings_of(top("send", BLOBMSG_TYPE_ARRAY));
	rules_.push_back(std::move(r));
	blob_buf_free(&b);
	return true;
}

acl_table acl_table::load(const std::string &dir, uid_t owner, std::vector<std::string> *notes)
{
	acl_table t;
	auto note = [&](const std::string &file, const char *why) {
		if (notes)
			notes->push_back(file + ": " + why);
	};
	std::vector<std::string> names;
	if (DIR *d = opendir(dir.c_str())) {
		while (struct dirent *e = readdir(d)) {
			std::string n = e->d_name;
			if (n.size() > 5 && n.compare(n.size() - 5, 5, ".json") == 0)
				names.push_back(n);
		}
		closedir(d);
	}
	std::sort(names.begin(), names.end());
	for (const auto &n : names) {
		std::string path = dir + "/" + n;
		// Checked on the open file, so that it cannot be swapped in between.
		int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
		if (fd < 0) {
			note(path, "cannot be opened");
			continue;
		}
		struct stat st;
		std::string text;
		if (fstat(fd, &st) < 0 || !S_ISREG(st.st_mode))
			note(path, "not a regular file");
		else if (st.st_uid != 0 && st.st_uid != owner)
			note(path, "wrong owner");
		else if (st.st_mode & (S_IWGRP | S_IWOTH))
			note(path, "writable by group or others");
		else if (!read_file(fd, &text))
			note(path, "cannot be read");
		else if (!t.add_json(text, path))
			note(path, "not an access list (a JSON object naming a user or a group)");
		close(fd);
	}
	return t;
}

bool acl_table::applies(const rule &r, const credentials &c)
{
	if (!r.user.empty())
		return r.user == c.user;
	return r.group == c.group;
}

bool acl_table::allows(const credentials &c, acl_op op, const char *name, const char *method) const
{
	if (!name)
		return false;
	for (const rule &r : rules_) {
		if (!applies(r, c))
			continue;
		if (op == acl_op::access) {
			for (const access_rule &a : r.access) {
				if (!event_match(a.pattern, name))
					continue;
				for (const std::string &m : a.methods)
					if (m == "*" || (method && m == method))
						return true;
			}
			continue;
		}
		const std::vector<std::string> &patterns = op == acl_op::publish     ? r.publish
							   : op == acl_op::subscribe ? r.subscribe
							   : op == acl_op::listen    ? r.listen
										     : r.send;
		if (any_match(patterns, name))
			return true;
	}
	return false;
}

void acl_table::describe(struct blob_buf *b, const std::string &path) const
{
	for (const rule &r : rules_) {
		for (const access_rule &a : r.access) {
			if (!event_match(a.pattern, path.c_str()))
				continue;
			void *t = blobmsg_open_table(b, nullptr);
			blobmsg_add_string(b, "obj", path.c_str());
			if (!r.user.empty())
				blobmsg_add_string(b, "user", r.user.c_str());
			else
				blobmsg_add_string(b, "group", r.group.c_str());
			void *m = blobmsg_open_array(b, "methods");
			for (const std::string &name : a.methods)
				blobmsg_add_string(b, nullptr, name.c_str());
			blobmsg_close_array(b, m);
			if (!a.priv.empty()) {
				auto *priv = reinterpret_cast<struct blob_attr *>(const_cast<uint8_t *>(a.priv.data()));
				blobmsg_add_blob(b, priv);
			}
			blobmsg_close_table(b, t);
		}
	}
}

} // namespace ubusd
