#include <fmt/format.h>
#include <json/json.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>

#include "commands.h"
#include "common/console.h"
#include "common/text.h"
#include "errors.h"
#include "images.h"
#include "model.h"
#include "summary.h"

namespace velmora::tool {

namespace {

using plugin::network::OutputMap;

constexpr char kHelp[] =
    R"(Runs every form of the model that works here on every image. For each two forms
and each output, prints over all images and values:
  absolute    the largest |a - b|
  relative    the largest |a - b| / max(|a|, |b|)
  not finite  how many values of either form are infinite or NaN
  same top    for how many images the best answer is the same

Exit status:
  0  the best answers are the same for all images, and all values are finite
  1  they are not, or something failed, as standard error says
  2  wrong usage
  3  the model could not be loaded, or has fewer than two forms that run here)";

/// One engine's outputs for all images.
struct Runs {
  const Model* model;
  std::vector<OutputMap> outputs;
  std::vector<double> milliseconds;
};

/// One output of two engines.
struct Difference {
  std::string a;
  std::string b;
  std::string output;
  double absolute = 0;
  double relative = 0;
  std::size_t not_finite = 0;
  std::optional<std::size_t> same_top;  // images; only for the first output

  bool agree(std::size_t images) const {
    return not_finite == 0 && same_top.value_or(images) == images;
  }
};

std::size_t Top(const std::vector<float>& values) {
  return static_cast<std::size_t>(std::max_element(values.begin(), values.end()) - values.begin());
}

void Add(const std::vector<float>& a, const std::vector<float>& b, Difference* difference) {
  if (a.size() != b.size()) {
    throw std::runtime_error(fmt::format("output \"{}\" has {} values in {} and {} in {}",
                                         difference->output, a.size(), difference->a, b.size(),
                                         difference->b));
  }
  for (std::size_t i = 0; i < a.size(); ++i) {
    const std::size_t not_finite =
        (std::isfinite(a[i]) ? 0U : 1U) + (std::isfinite(b[i]) ? 0U : 1U);
    if (not_finite > 0) {
      difference->not_finite += not_finite;
      continue;
    }
    const double distance = std::abs(double{a[i]} - double{b[i]});
    const double larger = std::max(std::abs(double{a[i]}), std::abs(double{b[i]}));
    difference->absolute = std::max(difference->absolute, distance);
    difference->relative = std::max(difference->relative, larger > 0 ? distance / larger : 0);
  }
  if (difference->same_top && !a.empty() && Top(a) == Top(b)) {
    ++*difference->same_top;
  }
}

std::vector<Difference> CompareAll(const std::vector<Runs>& engines) {
  std::vector<Difference> differences;
  for (std::size_t i = 0; i < engines.size(); ++i) {
    for (std::size_t j = i + 1; j < engines.size(); ++j) {
      const Engine& a = engines[i].model->engine;
      const Engine& b = engines[j].model->engine;
      for (std::size_t k = 0; k < std::min(a.outputs.size(), b.outputs.size()); ++k) {
        Difference difference;
        difference.a = a.id;
        difference.b = b.id;
        difference.output = engines[i].model->config.output_names[k];
        if (k == 0) {
          difference.same_top = 0;
        }
        for (std::size_t n = 0; n < engines[i].outputs.size(); ++n) {
          Add(engines[i].outputs[n].at(a.outputs[k]), engines[j].outputs[n].at(b.outputs[k]),
              &difference);
        }
        differences.push_back(difference);
      }
    }
  }
  return differences;
}

Json::Value ToJson(const std::vector<Runs>& engines, const std::vector<Difference>& differences) {
  Json::Value document;
  document["model"] = JsonText(engines[0].model->name);
  document["images"] = Json::UInt64{engines[0].outputs.size()};
  for (const Runs& runs : engines) {
    Json::Value& entry = document["engines"].append(Json::objectValue);
    entry["id"] = runs.model->engine.id;
    entry["engine"] = runs.model->engine.name;
    entry["device"] = runs.model->engine.device();
    entry["median_ms"] = Percentile(runs.milliseconds, 50);
  }
  for (const Difference& difference : differences) {
    Json::Value& entry = document["differences"].append(Json::objectValue);
    entry["engines"].append(difference.a);
    entry["engines"].append(difference.b);
    entry["output"] = JsonText(difference.output);
    entry["absolute"] = difference.absolute;
    entry["relative"] = difference.relative;
    entry["not_finite"] = Json::UInt64{difference.not_finite};
    if (difference.same_top) {
      entry["same_top"] = Json::UInt64{*difference.same_top};
    }
  }
  return document;
}

void PrintTables(const std::vector<Runs>& engines, const std::vector<Difference>& differences) {
  const std::size_t images = engines[0].outputs.size();
  std::size_t width = 6;
  for (const Runs& runs : engines) {
    width = std::max(width, runs.model->engine.name.size());
  }
  Print(fmt::format("{:<7} {:<{}}  {:<6}  {:>11}  {:>8}\n", "", "engine", width, "device",
                    "median (ms)", "images/s"));
  for (const Runs& runs : engines) {
    const double median = Percentile(runs.milliseconds, 50);
    Print(fmt::format("{:<7} {:<{}}  {:<6}  {:>11.3f}  {:>8.0f}\n", runs.model->engine.id,
                      runs.model->engine.name, width, runs.model->engine.device(), median,
                      1000 / median));
  }
  width = 6;
  for (const Difference& difference : differences) {
    width = std::max(width, OneLine(difference.output).size());
  }
  Print(fmt::format("\n{:<16} {:<{}}  {:>9}  {:>9}  {:>10}  {:>11}\n", "", "output", width,
                    "absolute", "relative", "not finite", "same top"));
  for (const Difference& difference : differences) {
    Print(fmt::format(
        "{:<16} {:<{}}  {:>9.2e}  {:>9.2e}  {:>10}  {:>11}\n", difference.a + " " + difference.b,
        OneLine(difference.output), width, difference.absolute, difference.relative,
        difference.not_finite,
        difference.same_top ? fmt::format("{} of {}", *difference.same_top, images) : "-"));
  }
}

int Compare(const CommonOptions& options) {
  Console console;
  std::vector<Model> models;
  for (const Form& form :
       ListForms(options.model, [&](const std::string& why) { console.Say(why); })) {
    models.push_back(LoadForm(options.model, form, Use::kAnswer));
    SayWarning(models.back(), &console);
  }
  if (models.size() < 2) {
    throw ModelError(options.model + ": fewer than two forms of it run here");
  }
  std::vector<Runs> engines;
  for (const Model& model : models) {
    engines.push_back({&model, {}, {}});
  }
  const std::vector<std::string> images = ListImages(options.images, &console);
  for (std::size_t i = 0; i < images.size(); ++i) {
    try {
      const cv::Mat image = Prepare(ReadImage(images[i], models[0].channels), models[0]);
      std::vector<OutputMap> outputs(engines.size());
      std::vector<double> seconds(engines.size());
      for (std::size_t n = 0; n < engines.size(); ++n) {
        const std::size_t k = (i + n) % engines.size();  // the first finds colder caches
        outputs[k] = RunNetwork(models[k], {image}, &seconds[k])[0];
      }
      // If one engine fails, the image counts for none.
      for (std::size_t k = 0; k < engines.size(); ++k) {
        engines[k].outputs.push_back(outputs[k]);
        engines[k].milliseconds.push_back(seconds[k] * 1000);
      }
    } catch (...) {
      console.Error(images[i], CurrentError());
    }
    console.ShowProgress(i + 1, images.size());
  }
  console.ClearProgress();
  if (engines[0].outputs.empty()) {
    return kNotAllDone;
  }
  const std::vector<Difference> differences = CompareAll(engines);
  const std::size_t count = engines[0].outputs.size();
  const bool agree = std::all_of(differences.begin(), differences.end(),
                                 [&](const Difference& each) { return each.agree(count); });
  if (options.json) {
    Json::Value document = ToJson(engines, differences);
    document["agree"] = agree;
    PrintJson(document);
  } else {
    PrintTables(engines, differences);
    Print(agree ? fmt::format("\nall engines agree on {} images\n", count)
                : "\nthe engines do not agree\n");
  }
  return agree && !console.any_error() ? kDone : kNotAllDone;
}

}  // namespace

void AddCompare(CLI::App* program, int* status) {
  const auto options = std::make_shared<CommonOptions>();
  CLI::App* const command =
      AddCommand(program, "compare", "Run all engines on the same images and compare them", kHelp,
                 status, [options] { return Compare(*options); });
  AddModel(command, &options->model);
  AddImages(command, &options->images);
  AddJson(command, &options->json);
}

}  // namespace velmora::tool
