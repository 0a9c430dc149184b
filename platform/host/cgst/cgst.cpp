#include "host/cgst/cgst.h"

#include <algorithm>

namespace host::cgst {

namespace {

Load pipeline_load;
Limits topic_limits;
Limits pipeline_limits;

}  // namespace

void Load::add(std::size_t size) {
  ++total;
  high_writes = std::max(high_writes, ++writes);
  high_bytes = std::max(high_bytes, bytes += size);
}

void Load::remove(std::size_t size, std::size_t count) {
  writes -= count;
  bytes -= size;
}

bool Topic::admit(std::size_t size) {
  if ((!enrolled_ || load_.admits(size, topic_limits)) && pipeline_load.admits(size, pipeline_limits)) return true;
  ++load_.refused;
  ++pipeline_load.refused;
  return false;
}

void Topic::take(std::size_t size) {
  load_.add(size);
  pipeline_load.add(size);
}

void Topic::release(std::size_t size, std::size_t count) {
  load_.remove(size, count);
  pipeline_load.remove(size, count);
}

const Load &pipeline() {
  return pipeline_load;
}

void set_limits(const Limits &topic, const Limits &pipeline) {
  topic_limits = topic;
  pipeline_limits = pipeline;
}

void reset() {
  pipeline_load = {};
  topic_limits = {};
  pipeline_limits = {};
}

}  // namespace host::cgst
