// The Redis side of the state-table comparison: 100k per-LSP records, one
// hash of 25 string fields each, loaded into a private redis-server over a
// Unix socket with pipelined HSET, one refresh round of four fields per
// record, every hash read back with HGETALL, and the server's bytes per
// record. One iteration per figure: each moves the whole table.
//
// Without redis-server or hiredis the benchmark reports "skipped the Redis
// peer: <reason>" instead of figures.
#include <benchmark/benchmark.h>

#include "RedisPeer.h"

#include <cstdio>
#include <exception>
#include <string>

namespace {

using namespace RsvpBench;

void skip(benchmark::State& state, std::string const& why) {
  auto const text = "skipped the Redis peer: " + why;
  std::fprintf(stderr, "%s\n", text.c_str());
  state.SkipWithError(text.c_str());
}

// Arguments: records, commands per pipelined batch.
void BM_RedisPeerStateTable(benchmark::State& state) {
  auto const count = static_cast<std::size_t>(state.range(0));
  auto const batch = static_cast<std::size_t>(state.range(1));
  RedisPeer peer;
  if (!peer.available()) {
    skip(state, peer.whyNot());
    return;
  }
  auto const records = syntheticSpRecords(count);
  auto const refresh = syntheticSpRefresh(records, 1);
  auto const keys = recordKeys(records);
  std::size_t const fieldsPerRecord = records.empty() ? 0 : records.front().fields.size();

  double load = 0, update = 0, bytesPerRecord = 0, rssPerRecord = 0;
  RedisReadBack read;
  try {
    for (auto _ : state) {
      auto const rssBefore = peer.usedMemoryRssBytes();
      load = peer.loadHashes(records, batch);
      auto const used = peer.usedMemoryBytes();
      auto const rss = peer.usedMemoryRssBytes();
      update = peer.updateFields(refresh, batch);
      read = peer.readBack(keys, batch);
      benchmark::DoNotOptimize(read.checksum);
      bytesPerRecord = static_cast<double>(used - peer.baselineMemoryBytes()) / count;
      rssPerRecord = static_cast<double>(rss - rssBefore) / count;
    }
    if (peer.dbSize() != count || read.keysFound != count ||
        read.fields != count * fieldsPerRecord) {
      skip(state, "read back " + std::to_string(read.keysFound) + " keys and " +
                      std::to_string(read.fields) + " fields, wrote " + std::to_string(count) +
                      " and " + std::to_string(count * fieldsPerRecord));
      return;
    }
  } catch (std::exception const& e) {
    skip(state, e.what());
    return;
  }
  state.counters["records"] = static_cast<double>(count);
  state.counters["fields_per_record"] = static_cast<double>(fieldsPerRecord);
  state.counters["load_s"] = load;
  state.counters["update_s"] = update;
  state.counters["readback_s"] = read.seconds;
  state.counters["load_us_per_record"] = load * 1e6 / count;
  state.counters["update_us_per_record"] = update * 1e6 / count;
  state.counters["readback_us_per_record"] = read.seconds * 1e6 / count;
  // What the records hold (keys, field names, values), against what the
  // server needs for them.
  double keyBytes = 0;
  for (auto const& k : keys) keyBytes += static_cast<double>(k.size());
  state.counters["payload_bytes_per_record"] = (keyBytes + static_cast<double>(read.bytes)) / count;
  state.counters["bytes_per_record"] = bytesPerRecord;
  state.counters["rss_bytes_per_record"] = rssPerRecord;
}
BENCHMARK(BM_RedisPeerStateTable)
    ->Args({100'000, RedisPeer::defaultBatch})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
