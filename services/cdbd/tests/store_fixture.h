#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "cdb_store/store_writer.h"
#include "edit/editor.h"
#include "model/model.h"
#include "read/stored_data.h"

namespace cdbd::test {

/// A data model with a store of its own in a directory of its own.
class StoreFixture {
 public:
  explicit StoreFixture(const std::string& module) {
    ModelOptions options;
    options.directories = {CDBD_MODELS_DIR, CDBD_TEST_MODELS_DIR};
    options.modules = {module};
    auto loaded = Model::Load(options);
    if (!loaded) throw std::runtime_error(loaded.error().Text());
    model = std::move(loaded).value();
    std::string pattern = (std::filesystem::temp_directory_path() / "cdbd-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
    directory = pattern;
    cdb_store::StoreOptions store_options;
    store_options.path = directory;
    store_options.durable = false;
    auto opened = cdb_store::StoreWriter::Open(store_options, model->schema(), "test");
    if (!opened) throw std::runtime_error(opened.error().Text());
    store = std::move(opened).value();
  }
  ~StoreFixture() {
    store.reset();
    std::filesystem::remove_all(directory);
  }
  StoreFixture(const StoreFixture&) = delete;
  StoreFixture& operator=(const StoreFixture&) = delete;

  /// Applies and commits `config`, the content of <config>; nothing is committed when there are errors.
  DataErrors Edit(const std::string& config, Operation default_operation = Operation::kMerge) {
    const auto document = netconf::XmlDocument::Parse("<config>" + config + "</config>");
    if (!document) throw std::runtime_error(document.error().Text() + " in " + config);
    auto txn = store->Begin();
    if (!txn) throw std::runtime_error(txn.error().Text());
    EditOptions options;
    options.default_operation = default_operation;
    DataErrors errors = Editor{*model, txn.value(), options}.Apply(document.value()->root());
    if (!errors.empty()) return errors;
    if (const auto committed = txn.value().Commit(); !committed) throw std::runtime_error(committed.error().Text());
    return {};
  }

  /// The configuration that `filter` (the content of <filter>) selects; all of it without one. Throws when it cannot be
  /// read.
  [[nodiscard]] std::string Read(const std::optional<std::string>& filter = std::nullopt) {
    const auto snapshot = store->Take();
    if (!snapshot) throw std::runtime_error(snapshot.error().Text());
    const cdb_store::View running = snapshot.value()->Running();
    std::string out;
    const auto document = netconf::XmlDocument::Parse("<filter>" + filter.value_or("") + "</filter>");
    if (!document) throw std::runtime_error(document.error().Text());
    const Selection selection = filter ? Selection::Of(document.value()->root()) : Selection::Everything();
    if (const auto written = WriteConfiguration(*model, running, selection, &out); !written)
      throw std::runtime_error(written.error().Text());
    return out;
  }

  std::unique_ptr<Model> model;
  std::unique_ptr<cdb_store::StoreWriter> store;
  std::string directory;
};

}  // namespace cdbd::test
