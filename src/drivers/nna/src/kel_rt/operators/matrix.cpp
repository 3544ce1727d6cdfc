// The matrix record: its making and its elements. What is computed with it is in kelRt_matmul.cpp.
#include "kelRt.h"

void m_init(KelRtMatrix* m, uint32_t cols, uint32_t rows, float* data) {
    *m = {cols, rows, data};
}

float* m_get(const KelRtMatrix* m, uint32_t row, uint32_t col) {
    return m->data + static_cast<uint32_t>(row * m->cols + col);
}
