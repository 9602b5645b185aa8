// The schemas whose tables vornctl prints by name: including a schema's
// header registers its status type in this program.
#include "Mfib/MfibDir.h"
#include "Schema/BitMapper/BitMapperSchema.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Vorn/TestSchema.h"
