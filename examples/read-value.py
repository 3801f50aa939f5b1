import tavix_settings

with tavix_settings.connect() as store:
    print(store.get("Video/Streams/Main", "resolution"))
