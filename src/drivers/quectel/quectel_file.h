// Files on the modem (its UFS flash and RAM storages), file upload through
// the AT channel, and firmware update from an uploaded package: the actions
// of every Quectel family.
#pragma once

#include "core/modem_driver.h"

// Installs the five file actions below on driver.
int quectel_file_probe(modem_driver *driver);

// AT+QFLST="<pattern>": "files" = [{"name", "size"}]; a file asked for by
// name that the modem does not have is an empty list.
int get_file_list(modem *mdm, int type, ujson *json, request *req);
// AT+QFDEL="<name>"; "*" (every file) is refused.
int delete_file(modem *mdm, int type, ujson *json, request *req);
// AT+QFLDS="<storage>": "free" and "total" bytes.
int get_storage_space(modem *mdm, int type, ujson *json, request *req);
// AT+QFUPL="<base name>",<size>,<timeout>: the router's file streamed after
// CONNECT; "name", "size", "checksum", and event 22 (file upload).
int upload_file(modem *mdm, int type, ujson *json, request *req);
// AT+QFOTADL="/data/ufs/<name>": firmware update from an uploaded package;
// its progress arrives as +QIND "FOTA" reports.
int dfota_upgrade(modem *mdm, int type, ujson *json, request *req);
