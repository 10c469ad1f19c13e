"""The generator of the RSVP model: schema loader, typed model, emitter."""
