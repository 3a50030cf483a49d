/* Constants shared by the bus client, the broker and the CLI. */
#ifndef __UBUS_COMMON_H
#define __UBUS_COMMON_H

#define UBUS_SIGNATURE_METHOD	(BLOBMSG_TYPE_LAST + 1)
#define UBUS_SIGNATURE_END	(BLOBMSG_TYPE_LAST + 2)

#endif
