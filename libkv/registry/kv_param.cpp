#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>

#include <kv/block.h>

namespace {

// Where a dialog parameter has what.
constexpr int kRows = 0;
constexpr int kColumns = 1;
constexpr int kValues = 2;

/** Truncated; the nearest limit when out of range, where a plain conversion differs between processors. */
template <typename Integer>
Integer saturated(double value) {
    using Limits = std::numeric_limits<Integer>;
    static_assert(Limits::digits <= std::numeric_limits<double>::digits, "the limits must be exact doubles");
    if (std::isnan(value)) {
        return 0;
    }
    return static_cast<Integer>(std::clamp<double>(value, Limits::min(), Limits::max()));
}

int toInt(double value) {
    return saturated<int>(value);
}

bool toBool(double value) {
    return toInt(value) != 0;
}

double toDouble(double value) {
    return value;
}

char toChar(double value) {
    return static_cast<char>(saturated<std::uint32_t>(value) & 0xFFU);
}

const double* parameterAt(const KvBlockDescriptor* block, int i) {
    return block->sfcnParams.dlgParams[i];
}

double firstValue(const KvBlockDescriptor* block, int i) {
    return parameterAt(block, i)[kValues];
}

/** Multiplied unsigned, where an overflow wraps round as callers expect of the signed product. */
int elementCount(const double* parameter) {
    return static_cast<int>(saturated<std::uint32_t>(parameter[kRows]) *
                            saturated<std::uint32_t>(parameter[kColumns]));
}

/** Tells an array that there is no room for from other failures to allocate. */
template <typename Element>
Element* newArray(std::size_t count) {
    auto* array = new (std::nothrow) Element[count];
    if (array == nullptr) {
        throw std::bad_array_new_length();
    }
    return array;
}

template <typename Vector, typename Convert>
Vector* newVector(const KvBlockDescriptor* block, int i, Convert convert) {
    using Element = std::remove_pointer_t<decltype(Vector::val)>;
    const double* parameter = parameterAt(block, i);
    const int length = elementCount(parameter);
    const std::size_t count = length > 0 ? static_cast<std::size_t>(length) : 0;

    auto vector = std::make_unique<Vector>();
    vector->val = newArray<Element>(count);
    vector->len = length;
    std::transform(parameter + kValues, parameter + kValues + count, vector->val, convert);
    return vector.release();
}

template <typename Vector>
void deleteVector(Vector* vector) {
    if (vector != nullptr) {
        delete[] vector->val;
        delete vector;
    }
}

}  // namespace

int kvParam_getInt(const KvBlockDescriptor* block, int i) {
    return toInt(firstValue(block, i));
}

bool kvParam_getBool(const KvBlockDescriptor* block, int i) {
    return toBool(firstValue(block, i));
}

double kvParam_getDouble(const KvBlockDescriptor* block, int i) {
    return toDouble(firstValue(block, i));
}

char kvParam_getChar(const KvBlockDescriptor* block, int i) {
    return toChar(firstValue(block, i));
}

KvParam_IntVec* kvParam_newIntVec(const KvBlockDescriptor* block, int i) {
    return newVector<KvParam_IntVec>(block, i, toInt);
}

KvParam_BoolVec* kvParam_newBoolVec(const KvBlockDescriptor* block, int i) {
    return newVector<KvParam_BoolVec>(block, i, toBool);
}

KvParam_DoubleVec* kvParam_newDoubleVec(const KvBlockDescriptor* block, int i) {
    return newVector<KvParam_DoubleVec>(block, i, toDouble);
}

KvParam_CharVec* kvParam_newCharVec(const KvBlockDescriptor* block, int i) {
    return newVector<KvParam_CharVec>(block, i, toChar);
}

void kvParam_deleteIntVec(KvParam_IntVec* vector) {
    deleteVector(vector);
}

void kvParam_deleteBoolVec(KvParam_BoolVec* vector) {
    deleteVector(vector);
}

void kvParam_deleteDoubleVec(KvParam_DoubleVec* vector) {
    deleteVector(vector);
}

void kvParam_deleteCharVec(KvParam_CharVec* vector) {
    deleteVector(vector);
}
