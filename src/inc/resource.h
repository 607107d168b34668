// Resource identifiers of the server.
#pragma once

#define IDS_CLASS_DESCRIPTION 109
#define IDS_READING 110
#define IDS_REBUILDING 111
#define IDS_SCANNING 112
#define IDS_SCAN_COMPLETED 113
#define IDS_SCAN_CANCELLED 114
