#include <fmt/format.h>
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>

#include "child_process.h"
#include "commands.h"
#include "common/console.h"
#include "common/text.h"
#include "errors.h"
#include "files.h"
#include "images.h"
#include "model.h"
#include "summary.h"

namespace velmora::tool {

namespace {

using plugin::network::OutputMap;

constexpr char kHelp[] =
    R"(For models of unknown origin, which can crash the process that runs them. Loads
and runs every form in a process of its own, with limits of memory and time.
"difference" is the largest difference from the first form's values, relative to
the largest value; forms agree if it is at most 0.05.

Exit status:
  0  every form loads and runs, and the values are finite and agree
  1  they do not
  2  wrong usage
  3  the description could not be read, or has no form that runs here)";

struct CheckOptions {
  std::string model;
  int memory = 2048;  // MiB
  int seconds = 60;
  bool json = false;
};

// For the process that Check() starts: it reports on one form.
struct CheckFormOptions {
  std::string model;
  std::string form;
  int parent = 0;  // process id
};

// Relative to an output's largest value. Forms of one network in different precisions differ by
// much less, and different networks by much more.
constexpr double kTolerance = 0.05;

struct Output {
  OutputSummary summary;
  std::vector<float> values;
  std::optional<double> difference;  // from the first form, relative to the largest value
};

/// What the child measures of one form; times are in milliseconds.
struct Measured {
  std::string device;
  double load = 0;
  double run = 0;
  std::uint64_t resident_kib = 0;
  InputShape input;
  std::string warning;
};

/// One form and its outputs.
struct Checked {
  Form form;
  std::string error;  // why a host should not use it; empty if it may
  Measured measured;
  std::vector<Output> outputs;

  bool ran() const { return !outputs.empty(); }
};

/// Parses what a child wrote: a line of JSON, followed by the values of the outputs. An engine that
/// writes to memory at random may have damaged it.
void ReadReport(const std::string& report, Checked* checked) {
  const std::size_t end = std::min(report.find('\n'), report.size());
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value head;
  std::string ignored;
  try {
    if (!reader->parse(report.data(), report.data() + end, &head, &ignored)) {
      throw std::runtime_error("ended without a report");
    }
    checked->error = head.get("error", "").asString();
    const Json::Value& input = head["input"];
    checked->measured = {
        head["device"].asString(),
        head["load_ms"].asDouble(),
        head["run_ms"].asDouble(),
        head["resident_kib"].asUInt64(),
        {input["width"].asInt(), input["height"].asInt(), input["channels"].asInt()},
        head.get("warning", "").asString()};
    std::size_t next = std::min(end + 1, report.size());
    for (const Json::Value& entry : head["outputs"]) {
      const std::size_t count = entry["values"].asUInt64();
      if (count > (report.size() - next) / sizeof(float)) {
        throw std::runtime_error("ended within its report");
      }
      Output output;
      output.values.resize(count);
      std::memcpy(output.values.data(), report.data() + next, count * sizeof(float));
      next += count * sizeof(float);
      output.summary = Summarise(entry["name"].asString(), output.values);
      checked->outputs.push_back(std::move(output));
    }
  } catch (...) {
    checked->outputs.clear();
    checked->error = CurrentError();
  }
}

Checked CheckOne(const CheckOptions& options, const Form& form) {
  Checked checked;
  checked.form = form;
  const ChildResult result =
      RunChild({"check-form", options.model, form.id}, {options.memory, options.seconds});
  if (result.error.empty()) {
    ReadReport(result.output, &checked);
  } else {
    checked.error = result.error;
  }
  if (const std::string path = options.model + ": "; checked.error.starts_with(path)) {
    checked.error.erase(0, path.size());
  }
  return checked;
}

/// Compares a form's outputs with those of the first one that ran.
void Compare(const Checked& first, Checked* other) {
  for (std::size_t k = 0; k < std::min(first.outputs.size(), other->outputs.size()); ++k) {
    const std::vector<float>& a = first.outputs[k].values;
    const std::vector<float>& b = other->outputs[k].values;
    const std::string name = OneLine(first.outputs[k].summary.name);
    if (a.size() != b.size()) {
      other->error = fmt::format("output \"{}\" has {} values, and {} in {}", name, b.size(),
                                 a.size(), first.form.id);
      return;
    }
    double largest = 0;
    double distance = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
      largest = std::max({largest, std::abs(double{a[i]}), std::abs(double{b[i]})});
      distance = std::max(distance, std::abs(double{a[i]} - double{b[i]}));
    }
    other->outputs[k].difference = largest > 0 ? distance / largest : 0;
    if (*other->outputs[k].difference > kTolerance) {
      other->error = fmt::format("output \"{}\" is not that of {}", name, first.form.id);
    }
  }
}

/// Finds errors in the outputs of forms that ran. Returns whether they agree.
bool Judge(std::vector<Checked>* forms) {
  const Checked* first = nullptr;
  bool agree = true;
  for (Checked& checked : *forms) {
    if (!checked.ran()) {
      continue;
    }
    for (const Output& output : checked.outputs) {
      if (output.summary.not_finite > 0) {
        checked.error = fmt::format("output \"{}\" has {} values that are not finite",
                                    OneLine(output.summary.name), output.summary.not_finite);
      }
    }
    if (!checked.error.empty()) {
      continue;
    }
    if (first == nullptr) {
      first = &checked;
    } else {
      Compare(*first, &checked);
      agree = agree && checked.error.empty();
    }
  }
  return agree;
}

/// Both the child's report and the user's document contain this.
void Put(const Measured& measured, Json::Value* entry) {
  (*entry)["device"] = measured.device;
  (*entry)["load_ms"] = measured.load;
  (*entry)["run_ms"] = measured.run;
  (*entry)["resident_kib"] = Json::UInt64{measured.resident_kib};
  (*entry)["input"]["width"] = measured.input.width;
  (*entry)["input"]["height"] = measured.input.height;
  (*entry)["input"]["channels"] = measured.input.channels;
  if (!measured.warning.empty()) {
    (*entry)["warning"] = JsonText(measured.warning);
  }
}

Json::Value ToJson(const CheckOptions& options, const std::vector<Checked>& forms) {
  Json::Value document;
  document["model"] = JsonText(ReadDescription(options.model).name);
  document["limits"]["memory_mib"] = options.memory;
  document["limits"]["seconds"] = options.seconds;
  for (const Checked& checked : forms) {
    Json::Value& entry = document["forms"].append(Json::objectValue);
    entry["id"] = checked.form.id;
    entry["engine"] = checked.form.engine;
    if (checked.ran()) {
      Put(checked.measured, &entry);
    }
    for (const Output& output : checked.outputs) {
      Json::Value& one = entry["outputs"].append(ToJson(output.summary));
      one.removeMember("shape");
      if (output.difference) {
        one["difference"] = *output.difference;
      }
    }
    if (!checked.error.empty()) {
      entry["error"] = JsonText(checked.error);
    }
  }
  return document;
}

void PrintTables(const std::vector<Checked>& forms) {
  std::size_t engine_width = 6;
  int name_width = 6;
  for (const Checked& checked : forms) {
    engine_width = std::max(engine_width, checked.form.engine.size());
    for (const Output& output : checked.outputs) {
      name_width = std::max(name_width, Width(OneLine(output.summary.name)));
    }
  }
  Print(fmt::format("{:<7} {:<{}}  {:<6}  {:>9}  {:>8}  {:>10}  {}\n", "", "engine", engine_width,
                    "device", "load (ms)", "run (ms)", "held (MiB)", "input"));
  for (const Checked& checked : forms) {
    const Measured& measured = checked.measured;
    if (!checked.ran()) {
      Print(fmt::format("{:<7} {:<{}}  {}\n", checked.form.id, checked.form.engine, engine_width,
                        OneLine(checked.error)));
      continue;
    }
    const auto size = [](int value) { return value == 0 ? "any" : std::to_string(value); };
    Print(fmt::format("{:<7} {:<{}}  {:<6}  {:>9.1f}  {:>8.1f}  {:>10}  {} x {} x {}\n",
                      checked.form.id, checked.form.engine, engine_width, measured.device,
                      measured.load, measured.run, measured.resident_kib / 1024,
                      size(measured.input.width), size(measured.input.height),
                      size(measured.input.channels)));
  }
  if (std::any_of(forms.begin(), forms.end(), [](const Checked& each) { return each.ran(); })) {
    Print(fmt::format("\n{:<7} {:<{}}  {}  {:>10}\n", "", "output", name_width, SummaryTitles(),
                      "difference"));
  }
  for (const Checked& checked : forms) {
    for (const Output& output : checked.outputs) {
      Print(fmt::format(
          "{:<7} {:<{}}  {}  {:>10}\n", checked.form.id, OneLine(output.summary.name), name_width,
          SummaryColumns(output.summary),
          output.difference ? fmt::format("{:.1e}", *output.difference) : std::string("-")));
    }
  }
}

int Check(const CheckOptions& options) {
  Console console;
  const std::vector<Form> forms =
      ListForms(options.model, [&](const std::string& why) { console.Say(why); });
  if (forms.empty()) {
    throw ModelError(options.model + ": no form of it runs here");
  }
  std::vector<Checked> checked;
  for (const Form& form : forms) {
    checked.push_back(CheckOne(options, form));
    console.ShowProgress(checked.size(), forms.size());
  }
  console.ClearProgress();
  const bool agree = Judge(&checked);
  const bool passed = std::all_of(checked.begin(), checked.end(),
                                  [](const Checked& each) { return each.error.empty(); });
  if (options.json) {
    Json::Value document = ToJson(options, checked);
    document["agree"] = agree;
    document["passed"] = passed;
    PrintJson(document);
  } else {
    PrintTables(checked);
    Print("\n");
    for (const Checked& each : checked) {
      if (each.ran() && !each.error.empty()) {
        Print(fmt::format("{}: {}\n", each.form.id, OneLine(each.error)));
      }
      if (!each.measured.warning.empty()) {
        Print(fmt::format("{}: {}\n", each.form.id, OneLine(each.measured.warning)));
      }
    }
    Print(!passed               ? "not every form loads, runs and agrees with the others\n"
          : checked.size() == 1 ? "the form loads and runs\n"
                                : "all forms load, run and agree\n");
  }
  return passed ? kDone : kNotAllDone;
}

int CheckForm(const CheckFormOptions& options) {
  const int output = EnterChild(options.parent);
  Json::Value report;
  std::string values;
  try {
    using Milliseconds = std::chrono::duration<double, std::milli>;
    std::optional<Form> form;
    for (Form& each : ListForms(options.model, [](const std::string&) {})) {
      if (each.id == options.form) {
        form = std::move(each);
      }
    }
    const auto start = std::chrono::steady_clock::now();
    const Model model = LoadForm(options.model, form.value(), Use::kAnswerToLabels);
    Measured measured;
    measured.load = Milliseconds(std::chrono::steady_clock::now() - start).count();
    double seconds = 0;
    const OutputMap outputs = RunNetwork(model, {Prepare(MadeUpImage(model), model)}, &seconds)[0];
    measured.run = seconds * 1000;
    measured.resident_kib = ResidentKib("self");
    measured.device = model.engine.device();
    measured.input = model.engine.input;
    measured.warning = model.warning;
    Put(measured, &report);
    for (std::size_t k = 0; k < model.engine.outputs.size(); ++k) {
      const std::vector<float>& each = outputs.at(model.engine.outputs[k]);
      Json::Value& entry = report["outputs"].append(Json::objectValue);
      entry["name"] = JsonText(model.config.output_names[k]);
      entry["values"] = Json::UInt64{each.size()};
      values.append(reinterpret_cast<const char*>(each.data()), each.size() * sizeof(float));
    }
  } catch (...) {
    report = Json::objectValue;
    report["error"] = JsonText(CurrentError());
    values.clear();
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  const std::string text = Json::writeString(builder, report) + "\n" + values;
  return WriteAll(output, text) ? kDone : kNotAllDone;
}

}  // namespace

void AddCheck(CLI::App* program, int* status) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App* const command =
      AddCommand(program, "check", "Try every form of a model, each in a process of its own", kHelp,
                 status, [options] { return Check(*options); });
  AddModel(command, &options->model);
  AddNumber(command, "--memory", &options->memory, "MIB", 1, 1'000'000,
            "Memory that a form may use [2048]");
  AddNumber(command, "--seconds", &options->seconds, "N", 1, 86'400,
            "Time that a form may take [60]");
  AddJson(command, &options->json);

  const auto form = std::make_shared<CheckFormOptions>();
  CLI::App* const child =
      AddCommand(program, "check-form", "", "", status, [form] { return CheckForm(*form); });
  AddModel(child, &form->model);
  AddText(child, "FORM", &form->form, "", "");
  AddNumber(child, "PARENT", &form->parent, "", 1, INT_MAX, "");
}

}  // namespace velmora::tool
