// Access lists of the broker: what a peer that is not trusted (root, or the
// broker's own user) may call, publish, subscribe to, listen for and send.
// They come from the *.json files of one directory; each file names a "user"
// or a "group" and grants
//   "access":    {"<object pattern>": {"methods": ["<method>" | "*", ...]}}
//   "publish", "subscribe", "listen", "send": ["<pattern>", ...]
// A pattern ending in '*' matches every name starting with what precedes it;
// any other pattern matches itself only. Whatever no file grants is denied.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct blob_buf;

namespace ubusd {

struct credentials {
	uid_t uid = 0;
	gid_t gid = 0;
	std::string user;	// empty when the uid has no passwd entry
	std::string group;	// the primary group's name, or empty
};

enum class acl_op { access, publish, subscribe, listen, send };

class acl_table {
public:
	// Adds the rules of one file's text; false (and nothing added) when it
	// is not a JSON object naming a user or a group.
	bool add_json(const std::string &text, const std::string &source);

	// Loads dir/*.json in name order. A file is used only when it is a
	// regular file owned by root or by owner and not writable by group or
	// others; every file left out is described in *notes (may be null).
	static acl_table load(const std::string &dir, uid_t owner, std::vector<std::string> *notes);

	// Whether some rule for c grants op on name (an object path, event
	// pattern or event name); for access also the method.
	bool allows(const credentials &c, acl_op op, const char *name, const char *method = nullptr) const;

	// Appends to an open blobmsg array one table per rule granting access
	// to the object at path: {"obj", "user" | "group", "methods", ["priv"]}.
	void describe(struct blob_buf *b, const std::string &path) const;

	size_t size() const { return rules_.size(); }

private:
	struct access_rule {
		std::string pattern;
		std::vector<std::string> methods;
		std::vector<uint8_t> priv;	// the "priv" member as given, or empty
	};
	struct rule {
		std::string user, group, source;
		std::vector<access_rule> access;
		std::vector<std::string> publish, subscribe, listen, send;
	};
	static bool applies(const rule &r, const credentials &c);

	std::vector<rule> rules_;
};

} // namespace ubusd
