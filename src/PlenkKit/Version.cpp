#include <PlenkKit/Version.h>

extern "C" {
const double PlenkKitVersionNumber = 1.0;
const unsigned char PlenkKitVersionString[] = "@(#)PROGRAM:PlenkKit  PROJECT:PlenkKit-1\n";
}
