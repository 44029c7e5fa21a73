#pragma once

#include <memory>

class QJsonObject;

namespace Core {

class Identifier;
class ManifestPrivate;

/// The manifest.json that a packaged application carries. Read once, when it is made; a copy is deep.
class Manifest
{
public:
    /// Not valid.
    Manifest();
    /// Reads the manifest of @p id; no file is read for an id that is not valid.
    explicit Manifest(const Identifier &id);
    Manifest(const Manifest &other);
    Manifest &operator=(const Manifest &other);
    ~Manifest();

    /// Whether there is a manifest and it holds a JSON object. An application that was not installed as a
    /// package has none.
    [[nodiscard]] bool isValid() const;

    /// All that it declares; empty for one that is not valid.
    [[nodiscard]] const QJsonObject &object() const;

    /// Whether the application asks not to be frozen in the background while it uses media. False unless
    /// the manifest says true.
    [[nodiscard]] bool keepMediaActiveInBackground() const;

private:
    const std::unique_ptr<ManifestPrivate> d;
};

} // namespace Core
