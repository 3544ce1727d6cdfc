// Reads data/ and holds every file against the shape that the network asks for.
#include "data.h"

#include <algorithm>

#include "npy.h"

namespace {

template <typename T>
std::vector<T> load(const std::string& directory, const char* name, const npy::Shape& shape) {
    const std::string path = directory + "/" + name + ".npy";
    const npy::Array array = npy::load(path);
    if (array.type != npy::type_of<T>() || array.shape != shape)
        throw DriverError(path + " holds " + npy::name_of(array.type) + " of shape " +
                          npy::to_string(array.shape) + ", and this network needs " +
                          npy::name_of(npy::type_of<T>()) + " of shape " + npy::to_string(shape));
    return array.values<T>();
}

}  // namespace

DataSet load_data(const std::string& directory) {
    DataSet data;
    data.mean = load<float>(directory, "mean", {kPixels});
    data.var = load<float>(directory, "var", {kPixels});
    data.input_weights = load<float>(directory, "input_weights", {kSide, kGates});
    data.hidden_weights = load<float>(directory, "hidden_weights", {kUnits, kGates});
    data.gate_bias = load<float>(directory, "gate_bias", {kGates});
    data.output_weights = load<float>(directory, "output_weights", {kUnits, kDigits});
    data.output_bias = load<float>(directory, "output_bias", {kDigits});
    data.images = load<uint8_t>(directory, "images", {kHeldOut, kSide, kSide});
    data.labels = load<uint8_t>(directory, "labels", {kHeldOut});
    data.probabilities = load<float>(directory, "probabilities", {kHeldOut, kDigits});

    const auto is_digit = [](uint8_t label) { return label < kDigits; };
    if (!std::all_of(data.labels.begin(), data.labels.end(), is_digit))
        throw DriverError(directory + "/labels.npy holds labels above 9");
    return data;
}
