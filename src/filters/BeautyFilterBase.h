#pragma once
// Base of the filter objects: a record of one filter's settings and of the
// per-frame face data that goes with them. Holds no GPU state.

#include <map>
#include <string>

#include <QObject>

#include "face/FaceDetectResult.h"

class BeautyFilterBase : public QObject {
    Q_OBJECT
public:
    BeautyFilterBase() = default;
    ~BeautyFilterBase() override = default;

    virtual void setParas(const std::map<std::string, double>& paras)
    {
        for (const auto& kv : paras) {
            auto it = paras_.find(kv.first);
            if (it != paras_.end())
                it->second = kv.second;
        }
    }
    virtual void setFilePath(const std::string& path) { filePath_ = path; }
    virtual void updateFaceInfo(const FaceDetectResult&, int, int) {}

    virtual float centerYOffset() { return 0.5f; }
    virtual float rotationZ() { return 0.f; }
    virtual int fileType() { return 0; }
    virtual float firstPageWidth() { return 0.f; }
    virtual float firstPageHeight() { return 0.f; }
    virtual int isClip() { return 0; }
    virtual std::map<std::string, double> paras() { return paras_; }

protected:
    std::map<std::string, double> paras_;
    std::string filePath_;
};
