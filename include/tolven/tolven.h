// Every public header of the library.
#pragma once

#include "tolven/autothread.h"
#include "tolven/blob.h"
#include "tolven/blobstatus.h"
#include "tolven/blobtime.h"
#include "tolven/configreader.h"
#include "tolven/event.h"
#include "tolven/exslots.h"
#include "tolven/fstring.h"
#include "tolven/iniconfigreader.h"
#include "tolven/osutils.h"
#include "tolven/quicklock.h"
#include "tolven/refobj.h"
#include "tolven/rwlock.h"
#include "tolven/tickcounter.h"
#include "tolven/versioninfo.h"
#include "tolven/utilerror.h"
