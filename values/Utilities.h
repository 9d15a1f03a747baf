// The small utilities in one include: names, IP address text, files, string order, hashes, UUIDs,
// random numbers and the debug log.
#pragma once

#include "values/Collate.h"
#include "values/DebugLog.h"
#include "values/DumpBuffer.h"
#include "values/FileUtil.h"
#include "values/Hash.h"
#include "values/IPAddress.h"
#include "values/Names.h"
#include "values/Random.h"
#include "values/UUID.h"
