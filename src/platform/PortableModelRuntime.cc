// The model runtime of every platform without one of its own: coreml/.
#include "coreml/Model.h"
#include "orvane/platform/ModelRuntime.h"

namespace orvane {
namespace {

class PortableLoadedModel : public LoadedModel {
 public:
  explicit PortableLoadedModel(coreml::Model model) : model_(std::move(model)) {}
  const coreml::ModelDescription& description() const override { return model_.description(); }
  coreml::Result<std::map<std::string, coreml::FeatureValue>> predict(
      const coreml::FeatureProvider& inputs) const override {
    return model_.predict(inputs);
  }

 private:
  coreml::Model model_;
};

class PortableModelRuntime : public ModelRuntime {
 public:
  coreml::Result<std::string> compileModel(const std::string& modelFilePath,
                                           const std::string& destinationFolder) override {
    return coreml::compileModel(modelFilePath, destinationFolder);
  }
  coreml::Result<std::shared_ptr<const LoadedModel>> loadCompiledModel(
      const std::string& compiledFolderPath) override {
    auto model = coreml::Model::load(compiledFolderPath);
    if (!model) return model.error();
    return std::shared_ptr<const LoadedModel>(
        std::make_shared<PortableLoadedModel>(std::move(model).value()));
  }
};

}  // namespace

std::shared_ptr<ModelRuntime> makePortableModelRuntime() {
  return std::make_shared<PortableModelRuntime>();
}

}  // namespace orvane
