#pragma once
// Row-major float matrix: element (r, c) lives at data[r * columns + c].
#include <cstddef>
#include <vector>

namespace SONEL::CONTAINERS {

struct Matrix {
    std::vector<float> data;
    unsigned rows = 0;
    unsigned columns = 0;

    Matrix() = default;
    Matrix(unsigned r, unsigned c, std::vector<float> values = {})
        : data(std::move(values)), rows(r), columns(c) {
        data.resize(static_cast<size_t>(r) * c);
    }
    float& at(unsigned r, unsigned c) { return data[static_cast<size_t>(r) * columns + c]; }
    float at(unsigned r, unsigned c) const { return data[static_cast<size_t>(r) * columns + c]; }
    bool operator==(const Matrix& o) const {
        return rows == o.rows && columns == o.columns && data == o.data;
    }
};

}  // namespace SONEL::CONTAINERS
