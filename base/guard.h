// RAII guards over platform resources, so that "release on every path" is structural.
// None of them allocates; all are move-only.
#pragma once

#include <string.h>
#include <unistd.h>

#include <utility>

#include "kep_pf_json.h"
#include "kep_pf_rpc.h"

namespace kep {

// Owns one JSON value and releases it with the platform's delete unless released.
class JsonPtr {
public:
    JsonPtr() = default;
    explicit JsonPtr(json_object *obj) : obj_(obj) {}
    JsonPtr(const JsonPtr &) = delete;
    JsonPtr &operator=(const JsonPtr &) = delete;
    JsonPtr(JsonPtr &&other) noexcept : obj_(other.release()) {}
    JsonPtr &operator=(JsonPtr &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~JsonPtr() { reset(); }

    json_object *get() const { return obj_; }
    explicit operator bool() const { return obj_ != nullptr; }
    // Hands the value over (to a container or the caller).
    json_object *release() { return std::exchange(obj_, nullptr); }
    void reset(json_object *obj = nullptr) {
        json_object *old = std::exchange(obj_, obj);
        if (old) jsonObjectObjectDelete(old);
    }
    // For out-parameters: releases the current value and exposes the slot.
    json_object **out() {
        reset();
        return &obj_;
    }

private:
    json_object *obj_ = nullptr;
};

// An RPC parameter set with its storage: zero-filled and initialised on
// construction, freed on destruction.
class RpcPara {
public:
    RpcPara() {
        memset(&set_, 0, sizeof set_);
        qxrpcParaInit(&set_);
    }
    RpcPara(const RpcPara &) = delete;
    RpcPara &operator=(const RpcPara &) = delete;
    ~RpcPara() { qxrpcParaFree(&set_); }
    QxRpcPara *get() { return &set_; }

private:
    QxRpcPara set_;
};

// Owns a file descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    ~Fd() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

}  // namespace kep
