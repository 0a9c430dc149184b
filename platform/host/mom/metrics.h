// What monitoring is told of the database. Loop's thread.
#pragma once

namespace mom {

class Hub;

void register_metrics(Hub &hub);

}  // namespace mom
