// What every room may use.
#ifndef XBSACTL_BASE_H
#define XBSACTL_BASE_H

#include "base/descriptor.h"
#include "base/errors.h"
#include "base/files.h"
#include "base/settings.h"
#include "base/stop.h"
#include "base/target.h"
#include "base/textfile.h"

#endif
