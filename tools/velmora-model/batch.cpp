#include "batch.h"

#include "common/text.h"
#include "errors.h"
#include "images.h"

namespace velmora::tool {

void ImageRun::Fail(Console* console) {
  error = CurrentError();
  console->Error(file, error);
}

Json::Value ToJson(const ImageRun& run) {
  Json::Value image;
  image["file"] = JsonText(run.file);
  if (!run.error.empty()) {
    image["error"] = JsonText(run.error);
  }
  return image;
}

std::vector<ImageRun> RunBatch(const Model& model, std::span<const std::string> files,
                               Console* console) {
  std::vector<ImageRun> batch(files.size());
  std::vector<ImageRun*> running;
  std::vector<cv::Mat> prepared;
  for (std::size_t i = 0; i < files.size(); ++i) {
    batch[i].file = files[i];
    try {
      batch[i].image = ReadImage(files[i], model.channels);
      batch[i].prepared = Prepare(batch[i].image, model);
      prepared.push_back(batch[i].prepared);
      running.push_back(&batch[i]);
    } catch (...) {
      batch[i].Fail(console);
    }
  }
  if (running.empty()) {
    return batch;
  }
  try {
    double seconds = 0;
    std::vector<plugin::network::OutputMap> outputs = RunNetwork(model, prepared, &seconds);
    for (std::size_t i = 0; i < running.size(); ++i) {
      running[i]->outputs = std::move(outputs[i]);
      running[i]->milliseconds = seconds * 1000 / static_cast<double>(running.size());
    }
  } catch (...) {
    for (ImageRun* const run : running) {
      run->Fail(console);
    }
  }
  return batch;
}

std::optional<OutputFolder> MakeOutputFolder(const std::string& path,
                                             const std::vector<std::string>& images,
                                             Console* console) {
  std::optional<OutputFolder> folder;
  try {
    if (!path.empty()) {
      folder.emplace(path, images);
    }
  } catch (...) {
    console->Error(path, CurrentError());
  }
  return folder;
}

}  // namespace velmora::tool
