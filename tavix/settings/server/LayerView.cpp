#include "tavix/settings/server/LayerView.h"

#include <utility>

#include "tavix/settings/server/UserLayer.h"

namespace tavix::settings::server {

using core::IniFile;

LayerView::LayerView(const UserLayer& layer)
    : _document(&layer.GetGroups()), _layer(layer.HasShared() ? &layer : nullptr) {}

const LayerView::Keys* LayerView::FindKeys(const std::string& group) const {
  const Keys* const keys = server::FindKeys(*_document, group);
  return keys && _layer && _layer->IsShared(*keys) ? &_layer->GetSharedKeys(group) : keys;
}

std::optional<LayerView::Group> LayerView::Find(const std::string& group) const {
  const Group place = _document->GetGroups().find(group);
  if (place == GetEnd()) return std::nullopt;
  return Resolve(place);
}

LayerView::Group LayerView::Resolve(Group place) const {
  return _layer ? _layer->Resolve(place) : place;
}

IniFile LayerView::Copy() const {
  if (!_layer) return *_document;
  IniFile::GroupMap groups;
  for (Group place = GetBegin(); place != GetEnd(); ++place) groups.insert(groups.end(), *Resolve(place));
  return IniFile(std::move(groups));
}

}  // namespace tavix::settings::server
