// The schemas whose tables vornctl prints by name: including a schema's
// header registers its status type in this program.
#include "BitMapper/BitMapperSchema.h"
#include "Mfib/MfibDir.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Vorn/TestSchema.h"
