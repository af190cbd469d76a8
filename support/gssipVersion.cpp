#include "gssipVersion.h"

#define GSSIP_TEXT_OF(number) #number
#define GSSIP_VERSION_TEXT(major, minor, patch) GSSIP_TEXT_OF(major) "." GSSIP_TEXT_OF(minor) "." GSSIP_TEXT_OF(patch)

char const* gssipVersion()
{
    return GSSIP_VERSION_TEXT(GSSIP_VERSION_MAJOR, GSSIP_VERSION_MINOR, GSSIP_VERSION_PATCH);
}
