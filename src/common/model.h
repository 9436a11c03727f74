// A neural model that is opened once and run by many. The model runtime shows in common/ort.h only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zorv {

/// One input or output as the model declares it.
struct ModelTensor {
    std::string name;
    std::string type;                 ///< "float32", "float16", ... or "no tensor"
    std::vector<std::int64_t> shape;  ///< -1 where symbolic; empty where nothing is declared
};

/// An opened model. Nothing that its users see of it changes: any number of ModelRuns, on any
/// threads, share one.
class Model {
  public:
    struct Session;  ///< the runtime's part, see common/ort.h

    /// `path` is for texts only.
    Model(std::string path, std::unique_ptr<Session> session);
    ~Model();
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    const std::string& path() const { return path_; }
    const std::vector<ModelTensor>& inputs() const { return inputs_; }
    const std::vector<ModelTensor>& outputs() const { return outputs_; }
    /// Null when there is none of that name.
    const ModelTensor* input(const std::string& name) const;
    Session& session() const { return *session_; }

  private:
    const std::string path_;
    const std::unique_ptr<Session> session_;
    std::vector<ModelTensor> inputs_, outputs_;
};

}  // namespace zorv
