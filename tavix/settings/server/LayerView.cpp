#include "tavix/settings/server/LayerView.h"

#include "tavix/settings/server/UserLayer.h"

namespace tavix::settings::server {

using core::IniFile;

LayerView::LayerView(const UserLayer& layer)
    : _document(&layer.GetGroups()), _layer(layer.HasShared() ? &layer : nullptr) {}

const LayerView::Keys* LayerView::FindKeys(const std::string& group) const {
  const Keys* const keys = server::FindKeys(*_document, group);
  return keys && _layer && _layer->IsShared(*keys) ? &_layer->GetSharedKeys(group) : keys;
}

LayerView::Group LayerView::Find(const std::string& group) const {
  const Group place = _document->GetGroups().find(group);
  return place == GetEnd() ? place : Resolve(place);
}

LayerView::Group LayerView::Resolve(Group place) const {
  return _layer ? _layer->Resolve(place) : place;
}

IniFile LayerView::Copy() const {
  IniFile copy;
  for (Group place = GetBegin(); place != GetEnd(); ++place) copy.MergeGroup(Resolve(place));
  return copy;
}

}  // namespace tavix::settings::server
