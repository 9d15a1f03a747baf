// The small utilities in one include: names, IP address text, files, string order, hashes, UUIDs,
// random numbers and the debug log.
#pragma once

#include "values/base/Collate.h"
#include "values/base/DumpBuffer.h"
#include "values/base/FileUtil.h"
#include "values/base/Hash.h"
#include "values/base/IPAddress.h"
#include "values/base/Names.h"
#include "values/base/Random.h"
#include "values/model/UUID.h"
#include "values/sync/DebugLog.h"
