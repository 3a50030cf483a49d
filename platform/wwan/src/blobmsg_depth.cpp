#include "wwan/blobmsg_depth.h"

#include <cstdlib>
#include <cstring>

int wwan_blobmsg_depth(const blob_attr *attr, bool list, int max_depth)
{
	if (!attr)
		return 0;
	bool container = blob_id(attr) == BLOBMSG_TYPE_ARRAY || blob_id(attr) == BLOBMSG_TYPE_TABLE;
	if (!list && !container)
		return 0;
	int top = list ? 0 : 1;
	if (top > max_depth)
		return -1;

	// One frame per open container: where its walk goes on and what is left.
	// The inline frames cover the usual limit; a larger max_depth grows them.
	struct frame {
		const blob_attr *pos;
		size_t rem;
	};
	frame inline_frames[WWAN_BLOBMSG_MAX_DEPTH + 2];
	frame *frames = inline_frames;
	size_t cap = sizeof(inline_frames) / sizeof(inline_frames[0]);

	int level = top;
	int deepest = top;
	frames[level] = {static_cast<const blob_attr *>(blobmsg_data(attr)), blobmsg_data_len(attr)};
	for (;;) {
		frame &f = frames[level];
		size_t pad = f.rem >= sizeof(blob_attr) ? blob_pad_len(f.pos) : 0;
		if (pad < sizeof(blob_attr) || pad > f.rem) {
			if (level == top)
				break;
			level--;
			continue;
		}
		const blob_attr *child = f.pos;
		size_t avail = f.rem;
		f.pos = blob_next(child);
		f.rem -= pad;
		unsigned int id = blob_id(child);
		if ((id != BLOBMSG_TYPE_ARRAY && id != BLOBMSG_TYPE_TABLE) || !blobmsg_check_attr_len(child, false, avail))
			continue;
		if (level + 1 > max_depth) {
			deepest = -1;
			break;
		}
		if (static_cast<size_t>(level) + 1 >= cap) {
			auto *grown = static_cast<frame *>(std::malloc(2 * cap * sizeof(frame)));
			if (!grown) {
				deepest = -1;
				break;
			}
			std::memcpy(grown, frames, cap * sizeof(frame));
			if (frames != inline_frames)
				std::free(frames);
			frames = grown;
			cap *= 2;
		}
		level++;
		if (level > deepest)
			deepest = level;
		frames[level] = {static_cast<const blob_attr *>(blobmsg_data(child)), blobmsg_data_len(child)};
	}
	if (frames != inline_frames)
		std::free(frames);
	return deepest;
}
