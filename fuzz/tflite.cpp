// A TensorFlow Lite model that the engine's own verifier lets through, to the second verifier: it
// must find its way in whatever the first accepts. No interpreter is built.
#include <tensorflow/lite/model.h>

#include "support.h"
#include "tensorflow_lite/graph_verifier.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace velmora::plugin::network;
  static const velmora::fuzz::MemoryFile file;
  file.Set(data, size);
  struct Note : compat::GraphVerifier {
    bool Verify(const char* bytes, int length, tflite::ErrorReporter* reporter) override {
      const bool is_sound = compat::GraphVerifier::Verify(bytes, length, reporter);
      velmora::fuzz::NoteOutcome(is_sound ? 1 : 2);
      return is_sound;
    }
  } verifier;
  tflite::FlatBufferModel::VerifyAndBuildFromFile(file.path().c_str(), &verifier,
                                                  tflite::DefaultErrorReporter());
  velmora::fuzz::TakeLogLines();
  return 0;
}
