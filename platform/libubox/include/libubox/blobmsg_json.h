/* Conversion between blobmsg and JSON text (json-c underneath). */
#ifndef LIBUBOX_BLOBMSG_JSON_H
#define LIBUBOX_BLOBMSG_JSON_H

#include <stdbool.h>

#include "blobmsg.h"

struct json_object;

/* Appends the members of a JSON object at the current level of `b`. On
 * failure false, and nothing is added. This implementation refuses values
 * nested deeper than WWAN_BLOBMSG_MAX_DEPTH (wwan/blobmsg_depth.h) here and
 * in every function below, instead of recursing on them. */
bool blobmsg_add_object(struct blob_buf *b, struct json_object *obj);
/* One value; as above on failure. */
bool blobmsg_add_json_element(struct blob_buf *b, const char *name, struct json_object *obj);
/* The document must be a JSON object; otherwise false and nothing added. */
bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str);
bool blobmsg_add_json_from_file(struct blob_buf *b, const char *file);

/* Returns replacement text for a value, or NULL to format it as usual. */
typedef const char *(*blobmsg_json_format_t)(void *priv, struct blob_attr *attr);

/* malloc'ed text (caller frees), NULL on failure. `list` formats the
 * attribute's children as an object (or an array for an ARRAY attribute);
 * otherwise the attribute itself as "name":value. indent < 0 is compact;
 * indent >= 0 uses newlines and that many leading TABs. Input nested too
 * deeply fails: NULL, not a truncated text. */
char *blobmsg_format_json_with_cb(struct blob_attr *attr, bool list,
				  blobmsg_json_format_t cb, void *priv, int indent);
char *blobmsg_format_json_value_with_cb(struct blob_attr *attr,
					blobmsg_json_format_t cb, void *priv, int indent);

static inline char *blobmsg_format_json(struct blob_attr *attr, bool list)
{
	return blobmsg_format_json_with_cb(attr, list, NULL, NULL, -1);
}

static inline char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent)
{
	return blobmsg_format_json_with_cb(attr, list, NULL, NULL, indent);
}

static inline char *blobmsg_format_json_value(struct blob_attr *attr)
{
	return blobmsg_format_json_value_with_cb(attr, NULL, NULL, -1);
}

static inline char *blobmsg_format_json_value_indent(struct blob_attr *attr, int indent)
{
	return blobmsg_format_json_value_with_cb(attr, NULL, NULL, indent);
}

#endif
