// The per-site message limits, as the service's status command shows them.
#pragma once

namespace TOLVEN {

class BasicSrvStatusWriter;

// Writes one line per site of LogProcessEventEx, in the table's order,
// "Line=%i File=%s Count=%u MaxCount=%u\n", then "%i Logn items found\n"; with no table
// (never used, or reset) "No Logn details found!\n". Gives 0.
int LogNShowDetails(BasicSrvStatusWriter* writer);

}  // namespace TOLVEN
