int compiled_alone;
