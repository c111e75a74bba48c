// The logger: a message is formatted once, straight into the thread's held
// traces when it may wait for its call's end, else into a string for the sink.
#include "platform/tessel/logging.h"

#include "platform/tessel/logging_batch.h"
#include "platform/tessel/logging_record.h"
#include "platform/tessel/logging_sink.h"

namespace Tessel::Service {
namespace {

using Logging::HeldOut;

// Formats a held trace straight into the held records: no message string is
// made. False (nothing kept) when it does not fit, needs escaping or masking,
// or the record must be cut: the general path below makes it then.
bool HoldFormatted(const Logger& logger, int level, std::string_view format,
                   const Detail::FormatArg* args, size_t count) {
  class Out final : public Detail::FormatSink {
   public:
    void Append(std::string_view text) override { held_.Append(text); }
    HeldOut& Held() { return held_; }

   private:
    HeldOut held_;
  } out;
  HeldOut& held = out.Held();
  Logging::AppendPrefix(logger, level, held);
  const size_t messageStart = held.Size();
  Detail::FormatTo(format, args, count, out);
  const std::string_view message = held.Text().substr(messageStart);
  const bool plain = !held.Overflowed() && message.size() <= kMaxLogRecordBytes &&
                     !Logging::HasControlByte(message);
  if (plain) held.Append('\n');
  if (plain && !held.Overflowed()) return true;
  held.Undo();
  return false;
}

}  // namespace

Ref<Logger> CreateLogger(const char* name) { return MakeRef<Logger>(name ? name : ""); }

void WriteLog(const Logger& logger, int level, const char* format, const Detail::FormatArg* args,
              size_t count) noexcept {
  try {
    // A trace held for a batch touches nothing shared.
    const unsigned flags = Logging::HoldFlags();
    const bool holdable =
        (flags & Logging::kHoldable) != 0 && Logging::InBatch() && level > 3 && level < 10;
    const bool masked = (flags & Logging::kMasked) != 0;
    if (holdable && !masked && HoldFormatted(logger, level, format, args, count)) return;
    const std::string message = Detail::ASPrintV(format, args, count);
    if (holdable) {
      HeldOut held;
      Logging::AppendPrefix(logger, level, held);
      Logging::AppendRecordText(masked ? Logging::MaskCredentials(message) : message, held);
      held.Append('\n');
      if (!held.Overflowed()) return;
      held.Undo();  // written below, after what is held
    }
    Logging::Deliver(logger, level, message);
  } catch (...) {
  }
}

}  // namespace Tessel::Service
