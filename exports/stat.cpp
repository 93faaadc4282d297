#include "exports/stat.h"

#include "exports/export_id.h"
#include "shell/command_table.h"
#include "shell/handler_steps.h"
#include "shell/output.h"

namespace Exports {

namespace {

using namespace Services::NBD::Client::Types;
using Shell::output;

void printCounters(const char* heading, const ExportTransferCounters& counters) {
  output()->printText(heading)->endLine();
  output()->printText("  NUM_TRANS_TOTAL        : ")->printU64(counters.numTransTotal)->endLine();
  output()->printText("  NUM_TRANS_COMPRESSED   : ")->printU64(counters.numTransCompressed)->endLine();
  output()->printText("  BYTES_TRANS_TOTAL      : ")->printU64(counters.bytesTransTotal)->endLine();
  output()->printText("  BYTES_TRANS_TRANSFERRED: ")->printU64(counters.bytesTransTransferred)->endLine();
}

}  // namespace

int stat(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWords("invalid arguments");
  }
  const auto number = readExportNumber(words[0]);
  if (!number) {
    return Shell::failed;
  }
  output()->printText("Fetching access statistics for export with ID ")->printU64(*number)->printText("... ");
  ExportStatistics statistics;
  if (Shell::endProgress(service->exportGetStatistics(exportID(*number), statistics)) != Shell::succeeded) {
    return Shell::failed;
  }
  printCounters("- RX", statistics.rx);
  printCounters("- TX", statistics.tx);
  return Shell::succeeded;
}

}  // namespace Exports
