// Copy pass: the picture as it stands, or premultiplied by its alpha.
varying vec2 textureCoordinate;
uniform sampler2D inputImageTexture;
uniform float premulAlpha;

void main()
{
    vec4 color = texture2D(inputImageTexture, textureCoordinate);
    if (premulAlpha == 1.0)
        gl_FragColor = vec4(color.rgb * color.a, color.a);
    else
        gl_FragColor = color;
}
